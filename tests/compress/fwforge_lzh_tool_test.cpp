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
    const std::string err_path = dir.File("stderr.txt");
    const std::string command = "cd '" + dir.path().string() + "' && '" FWFORGE_BINARY_DIR
                                "/fwforge-lzh' " + args + " 2>'" + err_path + "'";
    const int raw = std::system(command.c_str());
    const Bytes err = ReadBytes(err_path);
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, std::string(err.begin(), err.end())};
}

// `c` writes the bytes of a fresh encoder; `d` gives the input back unless the output
// bound cut the stream off, and then it fails.
TEST(FwforgeLzhTool, CompressesExactlyAndDecodesBack) {
    TempDir dir;
    auto files = SystemFiles("/usr/bin", 3, 10000, 100000);
    files.push_back({"synthetic", SyntheticBinary(40000, 1)});
    files.push_back({"empty", {}});
    for (const auto& [name, data] : files) {
        WriteBytes(dir.File("in"), data);
        ToolRun run = RunTool(dir, "c in packed");
        ASSERT_EQ(run.status, 0) << name << ": " << run.err;
        EXPECT_EQ(run.err, "");
        const Bytes packed = ReadBytes(dir.File("packed"));
        ASSERT_EQ(packed, CompressFresh(data)) << name;
        const bool cut =
            load_le32(packed.data() + 4) != data.size() || packed.size() == data.size() + 9;
        run = RunTool(dir, "d packed out");
        if (run.status == 0) {
            EXPECT_EQ(ReadBytes(dir.File("out")), data) << name;
        } else {
            EXPECT_TRUE(cut) << name << ": " << run.err;
        }
    }
}

TEST(FwforgeLzhTool, ReportsBadArgumentsAndInputs) {
    TempDir dir;
    WriteBytes(dir.File("garbage"), FromString("this is not compressed module data"));
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
        {"d garbage out", "fwforge-lzh: garbage is not valid compressed module data: total size",
         true},
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
