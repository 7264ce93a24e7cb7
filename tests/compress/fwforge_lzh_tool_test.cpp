// The fwforge-lzh program, run as users run it.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "compress/compress_test_support.h"
#include "platform/byte_order.h"

namespace fwforge::lzh {
namespace {

using namespace testing;

struct ToolRun {
    int status;
    std::string err;
};

ToolRun RunTool(const TempDir& dir, const std::string& args) {
    const std::string err_path = (dir.path() / "stderr.txt").string();
    const std::string command = "cd '" + dir.path().string() + "' && '" FWFORGE_BINARY_DIR
                                "/fwforge-lzh' " + args + " 2>'" + err_path + "'";
    const int raw = std::system(command.c_str());
    const Bytes err = ReadFile(err_path);
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, std::string(err.begin(), err.end())};
}

TEST(FwforgeLzhTool, CompressesExactlyAndDecodesBack) {
    TempDir dir;
    const Bytes input = SyntheticBinary(40000, 1);
    WriteFile(dir.path() / "module.bin", input);
    ToolRun run = RunTool(dir, "c module.bin module.lzh");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    // A fresh encoder: the same bytes as CompressModule with a new encoder.
    EXPECT_EQ(ReadFile(dir.path() / "module.lzh"), CompressFresh(input));
    run = RunTool(dir, "d module.lzh module.out");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(ReadFile(dir.path() / "module.out"), input);
}

TEST(FwforgeLzhTool, RoundTripsSystemFiles) {
    TempDir dir;
    auto files = SystemFiles("/usr/bin", 3, 10000, 100000);
    files.push_back({"empty", {}});
    for (const auto& [name, data] : files) {
        WriteFile(dir.path() / "in", data);
        ASSERT_EQ(RunTool(dir, "c in packed").status, 0) << name;
        const Bytes packed = ReadFile(dir.path() / "packed");
        ASSERT_GE(packed.size(), 9u);
        // A stream cut off by the output bound cannot be decoded, and the tool says so.
        const bool cut = load_le32(packed.data() + 4) != data.size() || packed.size() == data.size() + 9;
        const ToolRun run = RunTool(dir, "d packed out");
        if (run.status == 0) {
            EXPECT_EQ(ReadFile(dir.path() / "out"), data) << name;
        } else {
            EXPECT_TRUE(cut) << name << ": " << run.err;
        }
    }
}

TEST(FwforgeLzhTool, ReportsBadArgumentsAndInputs) {
    TempDir dir;
    WriteFile(dir.path() / "garbage", FromString("this is not compressed module data"));
    const std::string usage =
        "Usage - fwforge-lzh c INPUT OUTPUT   compress INPUT as a module\n"
        "        fwforge-lzh d INPUT OUTPUT   decode compressed module data\n";
    struct Case {
        std::string args;
        std::string err;  // exact text, or its beginning when `prefix`
        bool prefix;
    };
    const Case cases[] = {
        {"", usage, false},
        {"c onlyone", usage, false},
        {"x a b", usage, false},
        {"c a b extra", usage, false},
        {"c missing.bin out", "fwforge-lzh: cannot open input file missing.bin\n", false},
        {"d missing.bin out", "fwforge-lzh: cannot open input file missing.bin\n", false},
        {"d garbage out", "fwforge-lzh: garbage is not valid compressed module data: total size", true},
        {"c garbage nodir/out", "fwforge-lzh: cannot write output file nodir/out\n", false},
    };
    for (const auto& c : cases) {
        const ToolRun run = RunTool(dir, c.args);
        EXPECT_EQ(run.status, 1) << c.args;
        if (c.prefix) {
            EXPECT_EQ(run.err.substr(0, c.err.size()), c.err) << c.args;
        } else {
            EXPECT_EQ(run.err, c.err) << c.args;
        }
    }
}

}  // namespace
}  // namespace fwforge::lzh
