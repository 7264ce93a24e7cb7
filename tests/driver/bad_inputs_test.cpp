// Bad inputs a firmware engineer can hand the tool, each with the exact outcome it must
// give: the last line printed and the exit status. The table grows with every check.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "driver/main_flow.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

using testing::RandomBytes;
using testing::TempDir;
using testing::WithCrLf;
using testing::WriteBytes;

struct BadInput {
    const char* name;
    std::string script;       // "\n" line ends, turned into CR LF
    const char* output_path;  // first argument, inside the temp folder
    int status;
    std::string last_line;    // "" for a completed run
};

// [init] and [bios] of a 128 KB image with a 64 KB boot block and 4 KB of NVRAM.
std::string Settings(const std::string& bios_extra = "", const std::string& bbsize = "00010000") {
    return "[init]\nfile = bb.bin\n[bios]\nfile = rom.bin\nsize = 00020000\nbbsize = " + bbsize +
           "\nnvramsize = 00001000\ntag = T1\n" + bios_extra;
}
std::string Module(const std::string& file, const std::string& extra = "") {
    return "[module]\nfile = " + file + "\nmoduleid = 01\ndestn = f000:0000\n" + extra;
}

TEST(BadInputs, EachEndsWithItsMessageAndStatus) {
    TempDir dir;
    WriteBytes(dir.File("bb.bin"), RandomBytes(0x10000, 1));
    WriteBytes(dir.File("short.bin"), RandomBytes(100, 2));
    WriteBytes(dir.File("empty.bin"), {});
    WriteBytes(dir.File("big.bin"), RandomBytes(100000, 3));
    std::filesystem::create_directories(dir.File("out"));
    std::filesystem::create_directories(dir.File("folder.bin"));

    const BadInput cases[] = {
        {"missing module file", Settings() + Module("missing.bin"), "out", 1,
         "FATAL ERROR: Cannot open module file: missing.bin"},
        {"module file is a folder", Settings() + Module("folder.bin"), "out", 1,
         "FATAL ERROR: Cannot open module file: folder.bin"},
        {"zero-length module, compressed", Settings() + Module("empty.bin"), "out", 0, ""},
        {"zero-length module, stored", Settings() + Module("empty.bin", "compressed = no\n"),
         "out", 0, ""},
        {"module larger than the main BIOS",
         Settings() + Module("big.bin", "compressed = no\n"), "out", 1,
         "FATAL ERROR: Out of ROM space!"},
        {"maxmodulesize below the compressed size",
         Settings() + Module("big.bin", "maxmodulesize = 00000100\n"), "out", 1,
         "FATAL ERROR: MaxModuleSize is too small for this module"},
        {"output folder does not exist", Settings() + Module("short.bin"), "nosuchdir", 1,
         "FATAL ERROR: Cannot create boot block file"},
        {"ROM file in a folder that does not exist",
         "[init]\nfile = bb.bin\n[bios]\nfile = nodir/rom.bin\nsize = 00020000\nbbsize = "
         "00010000\nnvramsize = 00001000\ntag = T1\n" + Module("short.bin"),
         "out", 1, "FATAL ERROR: Cannot create file: nodir/rom.bin"},
        {"truncated boot block file is copied as far as it reaches",
         "[init]\nfile = short.bin\n" + Settings().substr(Settings().find("[bios]")) +
             Module("short.bin"),
         "out", 0, ""},
        {"missing boot block file",
         "[init]\nfile = nobb.bin\n" + Settings().substr(Settings().find("[bios]")) +
             Module("short.bin"),
         "out", 1, "FATAL ERROR: Cannot open boot block file"},
        {"boot block size 0", Settings("", "00000000") + Module("short.bin"), "out", 1,
         "FATAL ERROR: Boot block size must be a multiple of 4 between 4 and 65536"},
        {"boot block size above 64 KB",
         "[init]\nfile = bb.bin\n[bios]\nfile = rom.bin\nsize = 00040000\nbbsize = "
         "00020000\nnvramsize = 00001000\ntag = T1\n" + Module("short.bin"),
         "out", 1, "FATAL ERROR: Boot block size must be a multiple of 4 between 4 and 65536"},
        {"checksum offset outside an 8 KB boot block",
         "[init]\nfile = bb.bin\nchecksumoffset = 00000000\n" +
             Settings("", "00002000").substr(Settings().find("[bios]")) + Module("short.bin"),
         "out", 1, "FATAL ERROR: Boot block checksum or tag offset lies outside the boot block"},
        {"sizes that wrap past 4 GB", Settings("", "ffffffff") + Module("short.bin"), "out", 1,
         "FATAL ERROR: [BIOS] BBSize FFFFFFFF + MaxEBBSize 00000000 + NVRAMSize 00001000 wraps "
         "past 4 GB"},
        {"EBB smaller than its header", Settings("maxebbsize = 00000010\n") + Module("short.bin"),
         "out", 1, "FATAL ERROR: Extended Boot Block size is too small"},
        {"EBB size not a multiple of 4",
         Settings("maxebbsize = 00000102\n") + Module("short.bin"), "out", 1,
         "FATAL ERROR: Extended Boot Block size must be a multiple of 4"},
        {"EBB module without an EBB", Settings() + Module("big.bin", "romregion = ebb\n"), "out",
         1,
         "FATAL ERROR: Some module(s) intended for Extended BootBlock but the Extended "
         "BootBlock size is zero."},
        {"EBB module larger than the EBB",
         Settings("maxebbsize = 00001000\n") +
             Module("big.bin", "romregion = ebb\ncompressed = no\n"),
         "out", 1, "FATAL ERROR: Out of EBB space!"},
    };
    // Scripts name their files relative to the working folder, as users write them.
    const auto previous_folder = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    for (const BadInput& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string script = dir.File("build.scr");
        testing::WriteText(script, WithCrLf(c.script));
        const std::string out_path = dir.File(c.output_path);
        const char* argv[] = {"fwforge", out_path.c_str(), script.c_str(), nullptr};
        std::ostringstream console;
        const int status = RunMainFlow(3, argv, console);
        EXPECT_EQ(status, c.status);
        const std::string text = console.str();
        const std::string expected =
            c.status == 0 ? "There were 0 errors and 0 warnings" : c.last_line;
        ASSERT_GE(text.size(), expected.size() + 1) << text;
        EXPECT_EQ(text.substr(text.size() - expected.size() - 1), expected + "\n") << text;
    }
    std::filesystem::current_path(previous_folder);
}

}  // namespace
}  // namespace fwforge
