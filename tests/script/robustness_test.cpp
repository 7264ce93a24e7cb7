// Malformed scripts of every kind end in a fatal report or are accepted; none may
// crash, hang or touch memory out of bounds (this suite also runs under the sanitizers).

#include <random>
#include <string>

#include "script/script_fixture.h"

namespace fwforge::script_test {
namespace {

using ScriptRobustnessTest = ScriptTest;

// Either outcome is fine; a fatal one must have printed its line.
void ExpectCleanEnd(const ParseResult& r) {
    if (r.fatal) {
        EXPECT_NE(r.console.find("\nFATAL ERROR: " + r.message + "\n"), std::string::npos);
    }
}

TEST_F(ScriptRobustnessTest, HandWrittenMonsters) {
    const std::string valid = CrLf(Join({kBios, kModule}));
    const std::string huge(100000, 'a');
    const std::string inputs[] = {
        std::string(1, '\0'),
        std::string(5000, '\0'),
        "\x1a",
        "\r",
        "\n",
        "\r\n\r\n\r",
        std::string(100000, '\n'),
        std::string(1000, '\r') + std::string(1000, '\n'),
        huge,
        "[bios]\r\nfile = " + huge + "\r\n",
        "[bios]\r\nfile = " + std::string(5000, '\xff') + "\r\n",
        "[module]\r\nfile\xff\xff\xff=\xff" + huge,
        "[bios]\r\ntag = " + std::string(3000, 'T') + "\r\n",
        "[module]\r\nromregion = " + std::string(3000, 'r') + "\r\n",
        "[romhole]\r\nname = " + std::string(3000, 'n') + "\r\n",
        "[romhole]\r\nsize = " + std::string(3000, 'f') + "\r\n",
        "[module]\r\nstartaddress = " + std::string(3000, '0') + "4\r\n",
        "[module]\r\ndestn = " + std::string(3000, ':') + "\r\n",
        valid + std::string(20000, '\x1a'),
        valid + "[module]\r\nfile = x\r\nmoduleid = 1b\r\ndestn = 0000:0000\r\n",
        valid + "[module]\r\nmoduleid=1b\r\nfile=" + std::string(5000, 'x') + "\r\n",
        std::string("[bios]\r\nfile = a\0b\r\n", 19),
        "[bios]\r\nfile =",
        "[bios]\r\nfile = ",
        "[bios]\r\nfile = a\r",
        "[bios]\r\n=",
        "//",
        "/",
        "[",
        "[romimage]\r\nversion = -" + huge,
    };
    for (const std::string& text : inputs) {
        SCOPED_TRACE(text.substr(0, 40));
        ExpectCleanEnd(ParseText(text));
    }
}

TEST_F(ScriptRobustnessTest, RandomBytesAndMutatedScripts) {
    std::mt19937 random(20240611);
    const std::string valid = CrLf(Join(
        {{"[init]", "file = bb.bin", "[romimage]", "version = 1"}, kBios, kModule,
         {"[module]", "file = r.bin", "moduleid = 20", "vendorid = 1000", "deviceid = 0001",
          "[module]", "moduleid = 20", "vendorid = 1000", "deviceid = 0002", "linkvenid = 1000",
          "linkdevid = 0001", "link = yes",
          "[romhole]", "startaddress = 000e0000", "size = 100", "filler = 0",
          "[noncriticalrom]", "name = setup", "startaddress = 000d0000", "size = 1000",
          "[module]", "file = e.bin", "moduleid = 09", "destn = f000:0000", "romregion = ebb"}}));
    static const char kAlphabet[] =
        "[]=/\\:- \t\r\n\x1a\xff\x00"
        "0123456789abcdefxyzABC";
    const std::string alphabet(kAlphabet, sizeof(kAlphabet) - 1);
    for (int round = 0; round < 300; ++round) {
        std::string text;
        if (round % 3 == 0) {
            text.resize(random() % 600);
            for (char& c : text) c = static_cast<char>(random() & 0xFF);
        } else {
            text = valid;
            const int edits = 1 + static_cast<int>(random() % 6);
            for (int e = 0; e < edits && !text.empty(); ++e) {
                const std::size_t at = random() % text.size();
                switch (random() % 3) {
                    case 0:
                        text[at] = alphabet[random() % alphabet.size()];
                        break;
                    case 1:
                        text.erase(at, 1 + random() % 8);
                        break;
                    default:
                        text.insert(at, std::string(1 + random() % 300,
                                                    alphabet[random() % alphabet.size()]));
                }
            }
        }
        SCOPED_TRACE(round);
        ExpectCleanEnd(ParseText(text));
    }
}

}  // namespace
}  // namespace fwforge::script_test
