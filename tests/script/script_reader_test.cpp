// The reader: line ends, blanks, keyword matching, tokens, the end mark and the
// messages of the grammar, with their line numbers.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "script/script_fixture.h"

namespace fwforge::script_test {
namespace {

struct ReaderFatalCase {
    std::string name;
    std::string text;  // the whole script file
    std::string message;
    int line;
};

using ScriptReaderTest = ScriptTest;

TEST_F(ScriptReaderTest, GrammarErrorsNameTheirLine) {
    const std::string long_value(261, 'a');
    const ReaderFatalCase cases[] = {
        {"empty file", "", kTopLevel, 0},
        {"unknown top-level text", CrLf({"hello"}), kTopLevel, 1},
        {"header after a blank", CrLf({" [bios]"}), kTopLevel, 1},
        {"line of blanks", CrLf({"", " \t"}), kTopLevel, 2},
        {"key outside a section", CrLf({"file = a"}), kTopLevel, 1},
        {"LF line ends", "[bios]\nfile = rom.bin\n", "Expected EOL.  ", 1},
        {"bare CR line ends", "[bios]\rfile = rom.bin\r", "Expected EOL.  ", 1},
        {"text after a header", CrLf({"[bios] x"}), "Expected EOL.  ", 1},
        {"header at the end of the file", "[bios]", "Expected EOL.  ", 1},
        {"header and blanks at the end", "\r\n[module]  ", "Expected EOL.  ", 2},
        {"key with more letters", CrLf({"[bios]", "filex = a"}), "Expected '='.  ", 2},
        {"key at the end of the file", "[bios]\r\n\r\nfile", "Expected '='.  ", 3},
        {"key and blanks only", CrLf({"[bios]", "file  \t"}), "Expected '='.  ", 2},
        {"missing value", CrLf({"[bios]", "file ="}), "Syntax error.  ", 2},
        {"blanks instead of a value", CrLf({"[bios]", "", "file =  \t\xff"}), "Syntax error.  ", 3},
        {"comment inside a module ends it",
         CrLf(Join(
             {kBios,
              {"[module]", "file = post.bin", "// note", "moduleid = 08", "destn = f000:8000"}})),
         kModuleKeys, 9},
        {"key after a comment that ended a module",
         CrLf(Join({kBios,
                    {"[module]", "file = post.bin", "moduleid = 08", "destn = f000:8000", "// note",
                     "compressed = no"}})),
         kTopLevel, 12},
        {"text after a value",
         CrLf(Join(
             {kBios,
              {"[module]", "file = post.bin", "moduleid = 08", "destn = f000:8000 trailing"}})),
         kTopLevel, 10},
        {"text after a value ends the section first",
         CrLf(Join({{"[bios]", "file = rom.bin x"}, kModule})), kBiosKeys, 2},
        {"value cut after 260 characters", CrLf(Join({{"[init]", "file = " + long_value}})),
         kTopLevel, 2},
        {"end mark inside a section runs its end checks",
         CrLf(Join({kBios, {"[module]", "file = post.bin", "\x1a" "moduleid = 08"}})), kModuleKeys,
         9},
        {"upper case after a zero byte stays upper case",
         CrLf(Join({{"[bios]", "file = rom.bin", "size = 00080000", "bbsize = 00010000",
                     "nvramsize = 00004000", std::string("tag = ab\0cd", 11), "[MODULE]"}})),
         kTopLevel, 7},
        {"a header that is only a prefix of a section", CrLf({"[bio]"}), kTopLevel, 1},
        {"the end mark after a blank is text", CrLf({" \x1a"}), kTopLevel, 1},
    };
    for (const ReaderFatalCase& c : cases) {
        SCOPED_TRACE(c.name);
        const ParseResult r = ParseText(c.text);
        ExpectFatal(r, AtLine(c.message, c.line));
    }
    // The path in the tail is the one given, not lower-cased.
    const std::string upper = dir_.WriteBytes("UPPER.SCR", CrLf({"x"}));
    ExpectFatal(ParseScriptFile(upper), kTopLevel + "Refer to " + upper + ", line 1.");
}

TEST_F(ScriptReaderTest, MissingScriptFileCannotBeOpened) {
    // A missing file, no name at all, and a folder.
    for (const std::string& path : {dir_.Path("none.scr"), std::string(), dir_.Path("")}) {
        SCOPED_TRACE(path);
        const ParseResult r = ParseScriptFile(path);
        ExpectFatal(r, "Cannot open script file");
        // Nothing is announced for a script that cannot be read.
        EXPECT_EQ(r.console, "\nFATAL ERROR: Cannot open script file\n");
    }
}

// Kernel attribute files report a size of a whole page but deliver only their text,
// which is the short read the reader must refuse.
TEST_F(ScriptReaderTest, ShortReadOfTheScript) {
    for (const char* candidate :
         {"/sys/devices/system/cpu/online", "/sys/kernel/profiling", "/sys/power/state"}) {
        std::error_code error;
        const auto size = std::filesystem::file_size(candidate, error);
        std::ifstream in(candidate, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), {});
        if (error || text.empty() || text.size() >= size) continue;
        const ParseResult r = ParseScriptFile(candidate);
        ExpectFatal(r, "Cannot read script file");
        EXPECT_EQ(r.console, "\nFATAL ERROR: Cannot read script file\n");
        return;
    }
    GTEST_SKIP() << "no file with a short read on this host";
}

TEST_F(ScriptReaderTest, AcceptedForms) {
    const std::string valid = CrLf(Join({kBios, kModule}));
    const std::pair<std::string, std::string> cases[] = {
        {"upper and mixed case",
         CrLf({"[BIOS]", "FILE = ROM.BIN", "Size = 00080000", "BBSize = 00010000",
               "NVRAMSize = 00004000", "Tag = Bios1", "[Module]", "File = Post.Bin",
               "ModuleID = 08", "DESTN = F000:8000"})},
        {"no blanks around =",
         CrLf({"[bios]", "file=rom.bin", "size=00080000", "bbsize=00010000", "nvramsize=00004000",
               "tag=bios1", "[module]", "file=post.bin", "moduleid=08", "destn=f000:8000"})},
        {"tabs and 0xFF as blanks",
         CrLf({"[bios] \t\xff", "file\t=\xffrom.bin \t", "size =\t00080000", "bbsize = 00010000",
               "nvramsize = 00004000", "tag = bios1", "[module]\xff", "file = post.bin",
               "moduleid = 08", "destn = f000:8000"})},
        {"empty lines and comments between sections",
         CrLf(Join({{"// header", "", "//"}, kBios, {"", "", "// modules", ""}, kModule, {""}}))},
        {"empty lines inside a section",
         CrLf({"[bios]", "", "file = rom.bin", "", "size = 00080000", "bbsize = 00010000",
               "nvramsize = 00004000", "tag = bios1", "", "[module]", "file = post.bin", "",
               "moduleid = 08", "destn = f000:8000"})},
        {"last line without line end", valid + "// end"},
        {"last value without line end", CrLf(kBios) + "[module]\r\nfile = post.bin\r\n"
                                                      "moduleid = 08\r\ndestn = f000:8000"},
        {"end mark ends the script", valid + "\x1a garbage\r\n[x"},
        {"end mark at the start of a section line", valid + "\x1a" "file = x"},
        {"two keys on one line",
         CrLf(Join({{"[bios]", "file = rom.bin size = 00080000", "bbsize = 00010000",
                     "nvramsize = 00004000", "tag = bios1"},
                    kModule}))},
        {"sections repeated", CrLf(Join({kBios, kModule, kBios, kModule,
                                         Repeat({"[init]", "file = bb.bin"}, 2)}))},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        const ParseResult r = ParseText(text);
        EXPECT_FALSE(r.fatal) << r.console;
        EXPECT_EQ(r.description.Bios.RomFile, "rom.bin");
        EXPECT_EQ(r.description.Bios.BiosSize, 0x80000u);
        EXPECT_EQ(r.description.ModuleTable[0].FileName, "post.bin");
    }
}

TEST_F(ScriptReaderTest, ValuesKeepTheirBytes) {
    const std::string long_name(260, 'b');
    struct ValueCase {
        std::string line;
        std::string rom_file;
    } cases[] = {
        {"file = a\rb", "a\rb"},
        {"file = a\nb", "a\nb"},
        {"file = a\xff" "b", "a\xff" "b"},
        {"file = dir\\Rom.Bin", "dir\\rom.bin"},
        {"file = " + long_name, long_name},
        {std::string("file = ab\0cd", 12), "ab"},
    };
    for (const ValueCase& c : cases) {
        SCOPED_TRACE(c.line);
        std::vector<std::string> lines = Join({kBios, kModule});
        lines[1] = c.line;
        const ParseResult r = ParseLines(lines);
        ASSERT_FALSE(r.fatal) << r.console;
        EXPECT_EQ(r.description.Bios.RomFile, c.rom_file);
    }
}

TEST_F(ScriptReaderTest, VerboseModeNamesEachHeaderAndTopLevelComment) {
    const ParseResult r = ParseLines(
        Join({{"// Board X", "[INIT]", "file = bb.bin"}, kBios, kModule, {"[romimage]"}}), true);
    ASSERT_FALSE(r.fatal) << r.console;
    EXPECT_EQ(r.console, "Parsing " + script_path_ +
                             "...\n"
                             "PROCESSING: //\n"
                             "PROCESSING: [init]\n"
                             "PROCESSING: [bios]\n"
                             "PROCESSING: [module]\n"
                             "PROCESSING: [romimage]\n");
}

TEST_F(ScriptReaderTest, ScriptNameWithBackslashesAndOtherCase) {
    std::filesystem::create_directories(dir_.path() / "Scripts");
    dir_.WriteBytes("Scripts/Board.Scr", CrLf(Join({kBios, kModule})));
    const std::string given = dir_.Path("scripts") + "\\board.scr";
    const ParseResult r = ParseScriptFile(given);
    EXPECT_FALSE(r.fatal) << r.console;
    EXPECT_EQ(r.console, "Parsing " + given + "...\n");
}

}  // namespace
}  // namespace fwforge::script_test
