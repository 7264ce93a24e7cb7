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

std::string Hole(const std::string& start, const std::string& size) {
    return "[romhole]\nstartaddress = " + start + "\nsize = " + size + "\n";
}

// [init] and [bios], by default of a 128 KB image with a 64 KB boot block and 4 KB of NVRAM.
struct Bios {
    std::string init = "file = bb.bin\n", file = "rom.bin", size = "00020000",
                bbsize = "00010000", nvram = "00001000", extra = "";
};
std::string Settings(const Bios& b = {}) {
    return "[init]\n" + b.init + "[bios]\nfile = " + b.file + "\nsize = " + b.size +
           "\nbbsize = " + b.bbsize + "\nnvramsize = " + b.nvram + "\ntag = T1\n" + b.extra;
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
        {"zero-length module, stored", Settings() + Module("empty.bin", "compressed = no\n"), "out",
         0, ""},
        {"module larger than the main BIOS", Settings() + Module("big.bin", "compressed = no\n"),
         "out", 1, "FATAL ERROR: Out of ROM space!"},
        {"maxmodulesize below the compressed size",
         Settings() + Module("big.bin", "maxmodulesize = 00000100\n"), "out", 1,
         "FATAL ERROR: MaxModuleSize is too small for this module"},
        {"output folder does not exist", Settings() + Module("short.bin"), "nosuchdir", 1,
         "FATAL ERROR: Cannot create boot block file"},
        {"ROM file in a folder that does not exist",
         Settings({.file = "nodir/rom.bin"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Cannot create file: nodir/rom.bin"},
        {"truncated boot block file is copied as far as it reaches",
         Settings({.init = "file = short.bin\n"}) + Module("short.bin"), "out", 0, ""},
        {"missing boot block file", Settings({.init = "file = nobb.bin\n"}) + Module("short.bin"),
         "out", 1, "FATAL ERROR: Cannot open boot block file"},
        {"boot block size 0", Settings({.bbsize = "00000000"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Boot block size must be a multiple of 4 between 4 and 65536"},
        {"boot block size above 64 KB",
         Settings({.size = "00040000", .bbsize = "00020000"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Boot block size must be a multiple of 4 between 4 and 65536"},
        {"checksum offset outside an 8 KB boot block",
         Settings({.init = "file = bb.bin\nchecksumoffset = 00000000\n", .bbsize = "00002000"}) +
             Module("short.bin"),
         "out", 1, "FATAL ERROR: Boot block checksum or tag offset lies outside the boot block"},
        // The end-of-script check sums in 32 bits: 10000 + ffff0000 + 1000 passes as 1000.
        {"EBB size that wraps the sum past 4 GB",
         Settings({.extra = "maxebbsize = ffff0000\n"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Extended Boot Block does not fit in the ROM image: maxebbsize 0xFFFF0000 "
         "is larger than the 0x00010000 bytes left below the boot block (size 0x00020000, "
         "bbsize 0x00010000)"},
        {"boot block larger than a size below 40",
         Settings({.init = "file = bb.bin\nchecksumoffset = 0000ff00\nbiostagoffset = 0000fff0\n",
                   .size = "00000020",
                   .bbsize = "00000100",
                   .nvram = "00000000"}) +
             Module("short.bin"),
         "out", 1,
         "FATAL ERROR: Boot block does not fit in the ROM image: bbsize 0x00000100 is larger "
         "than the 0x00000020 bytes left of size 0x00000020"},
        {"EBB smaller than its header",
         Settings({.extra = "maxebbsize = 00000010\n"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Extended Boot Block size is too small"},
        {"EBB size not a multiple of 4",
         Settings({.extra = "maxebbsize = 00000102\n"}) + Module("short.bin"), "out", 1,
         "FATAL ERROR: Extended Boot Block size must be a multiple of 4"},
        {"EBB module without an EBB", Settings() + Module("big.bin", "romregion = ebb\n"), "out", 1,
         "FATAL ERROR: Some module(s) intended for Extended BootBlock but the Extended "
         "BootBlock size is zero."},
        {"EBB module larger than the EBB",
         Settings({.extra = "maxebbsize = 00001000\n"}) +
             Module("big.bin", "romregion = ebb\ncompressed = no\n"),
         "out", 1, "FATAL ERROR: Out of EBB space!"},
        // The image spans ROM addresses e0000-fffff; boot block and NVRAM take f0000 up.
        {"ROM hole above the 1 MB address space",
         Settings() + Module("short.bin") + Hole("00100000", "00000100"), "out", 1,
         "FATAL ERROR: ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"ROM hole below the image",
         Settings() + Module("short.bin") + Hole("000c0000", "00000100"), "out", 1,
         "FATAL ERROR: ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"ROM hole reaching into NVRAM",
         Settings() + Module("short.bin") + Hole("000ee000", "00002000"), "out", 1,
         "FATAL ERROR: ROMHOLE, NONCRITICALROM or Fixed Location Module conflicts with "
         "bootblock or NVRAM"},
        {"module start address below the image",
         Settings() + Module("short.bin", "startaddress = 00010000\n"), "out", 1,
         "FATAL ERROR: ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        // The hole starts at image offset 8000 and ends at 0 in 32 bits, which passes the
        // test against the top; its filler would be written past the image.
        {"ROM hole range that wraps past 4 GB",
         Settings() + Module("short.bin") + Hole("000e8000", "ffff8000"), "out", 1,
         "FATAL ERROR: ROMHOLE 0 at image offset 8000 with size ffff8000 reaches past the end of "
         "the image (BIOS size 20000)"},
        {"module start address whose header wraps below 0",
         Settings() + Module("short.bin", "startaddress = 00000010\n"), "out", 1,
         "FATAL ERROR: ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"BIOS size too small for the main BIOS header",
         Settings({.init = "file = bb.bin\nchecksumoffset = 0000fff0\nbiostagoffset = 0000fff8\n",
                   .size = "00000020",
                   .bbsize = "00000010",
                   .nvram = "00000000"}) +
             Module("short.bin"),
         "out", 1,
         "FATAL ERROR: BIOS size 20 leaves 10 bytes below the boot block (bbsize 10), Extended "
         "Boot Block (maxebbsize 0) and NVRAM (nvramsize 0), too few for the main BIOS header "
         "of 20 bytes"},
    };
    // Scripts name their files relative to the working folder, as users write them.
    const auto previous_folder = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    for (const BadInput& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string script = dir.File("build.scr");
        testing::WriteText(script, WithCrLf(c.script));
        const std::string out_path = dir.File(c.output_path);
        const char* argv[] = {"fwforge", out_path.c_str(), "build.scr", nullptr};
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
