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
using script_test::Join;
using script_test::kBios;
using script_test::kModule;
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

TEST(MainFlow, TooFewArgumentsPrintUsageAndFail) {
    for (const auto& args : {std::vector<std::string>{}, std::vector<std::string>{"out"}}) {
        const RunOutcome r = RunWith(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, kBanner + kUsage);
    }
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

TEST(MainFlow, CompleteRunEndsWithTheSummary) {
    ScratchDir dir;
    const std::string script = dir.WriteBytes("board.scr", CrLf(Join({kBios, kModule})));
    const RunOutcome plain = RunWith({dir.Path("out"), script});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.out,
              kBanner + "Parsing " + script + "...\n" + "\nThere were 0 errors and 0 warnings\n");

    // A first argument of -v is the output folder; the script is the second argument.
    const RunOutcome shifted = RunWith({"-v", script, "-c"});
    EXPECT_EQ(shifted.status, 0);
    EXPECT_EQ(shifted.out, kBanner + kCompatLine + "Parsing " + script + "...\n" +
                               "\nThere were 0 errors and 0 warnings\n");

    const RunOutcome verbose = RunWith({dir.Path("out"), script, "-c", "-v", "ignored"});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_EQ(verbose.out, kBanner + kVerboseLine + kCompatLine + "Parsing " + script +
                               "...\nPROCESSING: [bios]\nPROCESSING: [module]\n" +
                               "\nThere were 0 errors and 0 warnings\n");
}

TEST(MainFlow, FatalErrorEndsTheRunWithoutSummary) {
    ScratchDir dir;
    const std::string script = dir.WriteBytes("bad.scr", CrLf({"[bios]", "file"}));
    const RunOutcome r = RunWith({"out", script});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, kBanner + "Parsing " + script + "...\n" +
                         "\nFATAL ERROR: Expected '='.  Refer to " + script + ", line 2.\n");
}

// The program itself: exit statuses, and everything on standard output.
TEST(MainFlow, ProgramExitStatusesAndStreams) {
    ScratchDir dir;
    const std::string good = dir.WriteBytes("good.scr", CrLf(Join({kBios, kModule})));
    const std::string bad = dir.WriteBytes("bad.scr", CrLf({"[bios] x"}));
    const std::string program = std::string(FWFORGE_BINARY_DIR) + "/fwforge";
    struct Case {
        std::string args;
        int status;
        std::string out;
    } cases[] = {
        {"", 1, kBanner + kUsage},
        {"out", 1, kBanner + kUsage},
        {"out '" + good + "' -v", 0,
         kBanner + kVerboseLine + "Parsing " + good +
             "...\nPROCESSING: [bios]\nPROCESSING: [module]\n\nThere were 0 errors and 0 "
             "warnings\n"},
        {"out '" + bad + "'", 1,
         kBanner + "Parsing " + bad + "...\n\nFATAL ERROR: Expected EOL.  Refer to " + bad +
             ", line 1.\n"},
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
        EXPECT_EQ(out_text.str(), c.out);
        EXPECT_EQ(err_text.str(), "");
    }
}

}  // namespace
}  // namespace fwforge
