#include "driver/main_flow.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "script/script_fixture.h"

namespace fwforge {
namespace {

using script_test::CrLf;
using script_test::ScratchDir;

const std::string kBanner =
    "ZELBIOS FWFORGE Version 3.33 (STRATA 2)\n"
    "Copyright (C) The FWFORGE Project. All rights reserved.\n\n";
const std::string kUsage =
    "Usage - FWFORGE OutputPath ScriptFile [-v] [-c]\n"
    "    -v  be verbose\n"
    "    -c  produce compatability mode main BIOS header\n";
const std::string kVerboseLine = "VERBOSE MODE: \n\n";
const std::string kCompatLine =
    "COMPATABILITY MODE: Main BIOS header will be pre-version 1.00 style \n\n";

struct RunOutcome {
    int status;
    std::string out;
};

RunOutcome RunWith(const std::vector<std::string>& args) {
    std::vector<const char*> argv = {"fwforge"};
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    std::ostringstream out;
    const int status = RunMainFlow(static_cast<int>(argv.size()) - 1, argv.data(), out);
    return {status, out.str()};
}

TEST(MainFlow, OptionsAreLookedForInPositionsThreeAndFourOnly) {
    ScratchDir dir;
    const std::string missing = dir.Path("missing.scr");
    const std::string stop = "\nFATAL ERROR: Cannot open script file\n";
    struct Case {
        std::vector<std::string> args;
        std::string lines;
    } cases[] = {
        {{"out", missing}, ""},
        {{"out", missing, "-v"}, kVerboseLine},
        {{"out", missing, "-c"}, kCompatLine},
        {{"out", missing, "-c", "-v"}, kVerboseLine + kCompatLine},
        {{"out", missing, "-v", "-c"}, kVerboseLine + kCompatLine},
        {{"out", missing, "-v", "-v"}, kVerboseLine},
        {{"out", missing, "-V"}, ""},
        {{"out", missing, "-C", "--v"}, ""},
        {{"out", missing, "-vc"}, ""},
        {{"out", missing, "x", "-c"}, kCompatLine},
        {{"out", missing, "-x", "-y", "-v"}, ""},
        {{"out", missing, "-c", "-c", "-v", "-v"}, kCompatLine},
        {{"-v", missing}, ""},
        {{"-v", "-c", missing}, ""},
    };
    for (const Case& c : cases) {
        std::string joined;
        for (const std::string& a : c.args) joined += a + " ";
        SCOPED_TRACE(joined);
        const RunOutcome r = RunWith(c.args);
        EXPECT_EQ(r.status, 1);
        // With "-c" in the script position the script is "-c".
        EXPECT_EQ(r.out, kBanner + c.lines + stop);
    }
}

// A complete build: boot block, one module, the ROM file in the scratch folder.
std::string WriteCompleteBuild(const ScratchDir& dir) {
    dir.WriteBytes("bb.bin", std::string(0x10000, '\x5a'));
    dir.WriteBytes("post.bin", std::string(3000, 'p'));
    std::filesystem::create_directories(dir.Path("out"));
    return dir.WriteBytes(
        "board.scr", CrLf({"[init]", "file = " + dir.Path("bb.bin"), "[bios]",
                           "file = " + dir.Path("rom.bin"), "size = 00080000",
                           "bbsize = 00010000", "nvramsize = 00004000", "tag = bios1",
                           "[module]", "file = " + dir.Path("post.bin"), "moduleid = 08",
                           "destn = f000:8000"}));
}

bool StartsWith(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}
bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

TEST(MainFlow, CompleteRunEndsWithTheSummary) {
    ScratchDir dir;
    const std::string script = WriteCompleteBuild(dir);
    const std::string summary = "\nThere were 0 errors and 0 warnings\n";

    const RunOutcome plain = RunWith({dir.Path("out"), script});
    EXPECT_EQ(plain.status, 0);
    EXPECT_TRUE(StartsWith(plain.out, kBanner + "Parsing " + script + "...\n")) << plain.out;
    EXPECT_TRUE(EndsWith(plain.out, summary)) << plain.out;

    const RunOutcome verbose = RunWith({dir.Path("out"), script, "-c", "-v", "ignored"});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_TRUE(StartsWith(verbose.out, kBanner + kVerboseLine + kCompatLine + "Parsing " +
                                            script + "...\nPROCESSING: [init]\n"))
        << verbose.out;
    EXPECT_TRUE(EndsWith(verbose.out, summary)) << verbose.out;

    // A first argument of -v is the output folder, not an option: the script is the
    // second argument, and the boot-block file cannot be created in a folder "-v".
    const RunOutcome shifted = RunWith({"-v", script, "-c"});
    EXPECT_EQ(shifted.status, 1);
    EXPECT_TRUE(StartsWith(shifted.out, kBanner + kCompatLine + "Parsing " + script + "...\n"))
        << shifted.out;
}

// The program itself: exit statuses (also of too few arguments, which print the usage,
// and of a fatal error, which ends the run without the summary), and everything on
// standard output.
TEST(MainFlow, ProgramExitStatusesAndStreams) {
    ScratchDir dir;
    const std::string good = WriteCompleteBuild(dir);
    const std::string bad = dir.WriteBytes("bad.scr", CrLf({"[bios] x"}));
    const std::string no_value = dir.WriteBytes("novalue.scr", CrLf({"[bios]", "file"}));
    const std::string program = std::string(FWFORGE_BINARY_DIR) + "/fwforge";
    // A completed run is checked by its last line only; its progress lines are the
    // image build's own tests.
    struct Case {
        std::string args;
        int status;
        std::string out;
    } cases[] = {
        {"'" + dir.Path("out") + "' '" + good + "' -v", 0, ""},
        {"", 1, kBanner + kUsage},
        {"out", 1, kBanner + kUsage},
        {"out '" + bad + "'", 1,
         kBanner + "Parsing " + bad + "...\n\nFATAL ERROR: Expected EOL.  Refer to " + bad +
             ", line 1.\n"},
        {"out '" + no_value + "'", 1,
         kBanner + "Parsing " + no_value + "...\n\nFATAL ERROR: Expected '='.  Refer to " +
             no_value + ", line 2.\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        const std::string out_file = dir.Path("stdout.txt");
        const std::string err_file = dir.Path("stderr.txt");
        const std::string command =
            "'" + program + "' " + c.args + " >'" + out_file + "' 2>'" + err_file + "'";
        const int raw = std::system(command.c_str());
        ASSERT_TRUE(WIFEXITED(raw));
        EXPECT_EQ(WEXITSTATUS(raw), c.status);
        std::ifstream out(out_file), err(err_file);
        std::stringstream out_text, err_text;
        out_text << out.rdbuf();
        err_text << err.rdbuf();
        if (c.status == 0) {
            EXPECT_TRUE(EndsWith(out_text.str(), "\nThere were 0 errors and 0 warnings\n"));
        } else {
            EXPECT_EQ(out_text.str(), c.out);
        }
        EXPECT_EQ(err_text.str(), "");
    }
}

}  // namespace
}  // namespace fwforge
