// The whole program on real build scripts: command line, script, image build, summary.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "driver/main_flow.h"
#include "support/image_checks.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

namespace fs = std::filesystem;
using testing::ReservedRange;
using testing::TempDir;

// Runs the program in `folder` (build scripts name their files relative to it).
int RunIn(const fs::path& folder, std::vector<const char*> args, std::string& console) {
    const fs::path before = fs::current_path();
    fs::current_path(folder);
    std::ostringstream out;
    args.insert(args.begin(), "fwforge");
    const int status = RunMainFlow(static_cast<int>(args.size()), args.data(), out);
    fs::current_path(before);
    console = out.str();
    return status;
}

// Every module of the chain holds its file: as it is, or compressed. Entries with an
// empty path are not compared.
void ExpectChainHolds(const std::vector<std::uint8_t>& rom, const testing::MainBiosCheck& check,
                      const std::vector<fs::path>& files) {
    ASSERT_EQ(check.chain.size(), files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (files[i].empty()) continue;
        EXPECT_EQ(testing::HoldsFile(rom, check.chain[i], testing::ReadBytes(files[i])), "")
            << files[i];
    }
}

// Copies the inputs that the generator of bundled example `name` made in the build tree
// into `dir`, runs the program on them there and returns the console.
std::string BuildExample(const std::string& name, const TempDir& dir) {
    const fs::path generated = fs::path(FWFORGE_BINARY_DIR) / "examples" / name;
    EXPECT_TRUE(fs::exists(generated / "bootblk.bin")) << "build the example inputs";
    for (const auto& entry : fs::directory_iterator(generated)) {
        const fs::path extension = entry.path().extension();
        if (entry.is_regular_file() && !extension.empty() && extension != ".cmake") {
            fs::copy_file(entry.path(), dir.path() / entry.path().filename());
        }
    }
    fs::create_directories(dir.path() / "out");
    const std::string script = name + ".scr";
    std::string console;
    EXPECT_EQ(RunIn(dir.path(), {"out", script.c_str()}, console), 0) << console;
    EXPECT_NE(console.find("\nThere were 0 errors and 0 warnings\n"), std::string::npos);
    return console;
}

TEST(ImageBuildFlow, BundledExampleBuilds) {
    TempDir dir;
    BuildExample("firmware", dir);
    const auto rom = testing::ReadBytes(dir.File("firmware.rom"));
    ASSERT_EQ(rom.size(), 0x80000u);
    EXPECT_EQ(testing::ReadBytes(dir.File("out/FWF01.int")),
              std::vector<std::uint8_t>(rom.end() - 0x10000, rom.end()));
    const auto check = testing::CheckMainBios(rom, testing::LinkForm::Real16);
    for (const auto& p : check.problems) ADD_FAILURE() << p;
    // pmode.bin has its descriptors patched in the image; it is checked for its place.
    std::vector<fs::path> files;
    for (const char* name : {"post.bin", "setup.bin", "strings.bin", "microcode.bin", "video.rom",
                             "", "", "acpi.bin", "logo.bin", "smm.bin", "out/FWF01.inf"}) {
        files.push_back(*name ? dir.path() / name : fs::path());
    }
    ExpectChainHolds(rom, check, files);
    ASSERT_EQ(check.chain.size(), files.size());
    EXPECT_EQ(check.chain[5].attributes & 0x40, 0x40);
    EXPECT_EQ(check.chain[5].header, check.chain[4].header - 20);
    EXPECT_EQ(check.chain[6].module_id, 0x15);
    EXPECT_EQ(check.chain[6].data() % 0x10, 0u);
}

// The second example places by gaps: a module at a start address, a split module, ROM
// holes and a non-critical block.
TEST(ImageBuildFlow, SecondBundledExampleBuilds) {
    TempDir dir;
    const std::string console = BuildExample("firmware2", dir);
    for (const char* line : {" Inserting resume.bin as module id 09 at dffec\n",
                             " Splitting firmware_volume.bin as module id 0A\n",
                             " Inserting oemlogo.bin in ROMHOLE at c0000\n",
                             " Building non-critical block SETUPDATA at 20000\n"}) {
        EXPECT_NE(console.find(line), std::string::npos) << line;
    }
    const std::vector<std::uint8_t> rom = testing::ReadBytes(dir.File("firmware2.rom"));
    ASSERT_EQ(rom.size(), 0x80000u);
    const ReservedRange ranges[] = {
        {ReservedRange::FixedModule, 0x5FFE0, 0x720, 0, {}},
        {ReservedRange::Hole, 0x40000, 0x4000, 0x00, testing::ReadBytes(dir.File("oemlogo.bin"))},
        {ReservedRange::Hole, 0x50000, 0x2000, 0xFF, {}},
        {ReservedRange::Block, 0x20000, 0x8000, 0xFF, {}},
    };
    const auto check =
        testing::CheckGapImage(rom, testing::LinkForm::Real16, ranges, 0x68000, false);
    for (const auto& p : check.problems) ADD_FAILURE() << p;
    ASSERT_EQ(check.blocks.size(), 1u);
    EXPECT_EQ(check.blocks[0].chain.size(), 2u);
    EXPECT_EQ(rom[check.main.main_header - 4], 0x02 | 0x04);
}

// A whole run, console line by line, in each mode and form.
TEST(ImageBuildFlow, ConsoleOfWholeRuns) {
    struct Case {
        const char* what;
        bool force32;
        std::vector<const char*> options;
        std::vector<std::string> head;  // lines after the banner, up to the boot block
        std::string module_line, info_at;
    } cases[] = {
        {"normal", false, {}, {"Parsing {dir}/b.scr..."},
         " Inserting {dir}/a.bin as module id 01 at f2fc8", "f2f88"},
        {"compatibility", false, {"-c"},
         {"COMPATABILITY MODE: Main BIOS header will be pre-version 1.00 style ", "",
          "Parsing {dir}/b.scr..."},
         " Inserting {dir}/a.bin as module id 01 at f2fc8", "f2f88"},
        {"32-bit", true, {}, {"Parsing {dir}/b.scr...", "", "FORCING 32BIT OPERATION"},
         " Inserting {dir}/a.bin as module id 01 at 32fc8", "32f88"},
    };
    for (const Case& c : cases) {
        TempDir dir;
        const std::string d = dir.path().string();
        testing::WriteBytes(dir.File("bb.bin"), testing::RandomBytes(0x10000, 3));
        testing::WriteBytes(dir.File("a.bin"), testing::RandomBytes(0x1001, 4));
        testing::WriteText(
            dir.File("b.scr"),
            testing::WithCrLf("[init]\nfile = " + d + "/bb.bin\n[bios]\nfile = " + d +
                              "/x.rom\nsize = 00040000\nbbsize = 00008000\n"
                              "nvramsize = 00004000\ntag = t1\n" +
                              (c.force32 ? "[romimage]\nforce32 = yes\n" : "") +
                              "[module]\nmoduleid = 01\nfile = " + d +
                              "/a.bin\ndestn = f000:0000\ncompressed = no\n"));
        const std::string script = dir.File("b.scr");
        std::vector<const char*> args = {d.c_str(), script.c_str()};
        for (const char* o : c.options) args.push_back(o);
        std::string console;
        ASSERT_EQ(RunIn(dir.path(), args, console), 0) << console;

        std::vector<std::string> expected = {
            "ZELBIOS FWFORGE Version 3.33 (STRATA 2)",
            "Copyright (C) The FWFORGE Project. All rights reserved.", ""};
        expected.insert(expected.end(), c.head.begin(), c.head.end());
        expected.insert(expected.end(),
                        {"Generating boot block image...", "BIOS has no Extended Boot Block.",
                         "Initializing NVRAM space below boot block...",
                         "Generating final ROM image {dir}/x.rom...", " Creating main BIOS header",
                         c.module_line, "", "Generating Image Information Module ...",
                         " Inserting {dir}/T1.inf as module id 80 at " + c.info_at, "",
                         "There were 0 errors and 0 warnings"});
        for (std::string& line : expected) {
            if (const auto at = line.find("{dir}"); at != std::string::npos) line.replace(at, 5, d);
        }
        EXPECT_EQ(testing::SplitLines(console), expected) << c.what;

        const auto rom = testing::ReadBytes(dir.File("x.rom"));
        const auto check = testing::CheckMainBios(
            rom, c.force32 ? testing::LinkForm::Flat32 : testing::LinkForm::Real16);
        EXPECT_TRUE(check.problems.empty()) << c.what;
        ExpectChainHolds(rom, check, {dir.path() / "a.bin", dir.path() / "T1.inf"});
    }
}

// Sizes whose 32-bit arithmetic wraps: the end-of-script check lets them through, and the
// phases that lay the image out decide, with their own messages and files.
TEST(ImageBuildFlow, SizesThatWrapIn32Bits) {
    const std::vector<std::string> failed_in_nvram = {
        "Generating boot block image...", "BIOS has no Extended Boot Block.",
        "Initializing NVRAM space below boot block...", "",
        "FATAL ERROR: Sum of Nvram and Boot Block must be smaller than total BIOS size"};
    struct Case {
        const char* what;
        std::string init, bios, sections;  // [init] offsets, [bios] sizes, after the modules
        int status;
        std::uint32_t bb_size;
        std::vector<std::string> lines;  // after "Parsing r.scr..."
    } cases[] = {
        {"boot block and NVRAM add up to 4 GB", "",
         "nvramsize = ffff0000\nbbsize = 00010000\nsize = 00040000\n", "", 1, 0x10000,
         failed_in_nvram},
        {"size below the 40 bytes of the end-of-script check",
         "checksumoffset = 0000fff0\nbiostagoffset = 0000fff8\n",
         "size = 00000020\nbbsize = 00000010\nnvramsize = 00000010\n", "", 1, 0x10,
         failed_in_nvram},
        {"ROM hole size that rounds up to 0", "",
         "size = 00040000\nbbsize = 00010000\nnvramsize = 00004000\n",
         "[romhole]\nstartaddress = 000d0000\nsize = ffffffff\n", 0, 0x10000,
         {"Generating boot block image...", "BIOS has no Extended Boot Block.",
          "Initializing NVRAM space below boot block...", "Gathering module size information",
          "Generating gap information", " Creating main BIOS header", "",
          "Placing modules with specified fixed locations", "", "",
          "Placing modules that can't be split", "", " Inserting a.bin as module id 01 at c0008",
          " Inserting b.bin as module id 02 at c011c", "",
          "Placing remaining modules that will fit without splitting", "", "",
          "Splitting unplaced modules", "", "", "Generating Image Information Module ...",
          " Inserting out/T1.inf as module id 80 at c01b0",
          "Loading ROMHOLEs with filler data and files ...", "", "",
          "There were 0 errors and 0 warnings"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        testing::WriteBytes(dir.File("bb.bin"), testing::RandomBytes(0x10000, 5));
        testing::WriteBytes(dir.File("a.bin"), testing::RandomBytes(0x100, 6));
        testing::WriteBytes(dir.File("b.bin"), testing::RandomBytes(0x80, 7));
        fs::create_directories(dir.path() / "out");
        testing::WriteText(dir.File("r.scr"),
                           testing::WithCrLf("[init]\nfile = bb.bin\n" + c.init +
                                             "[bios]\nfile = r.rom\ntag = t1\n" + c.bios +
                                             "[module]\nfile = a.bin\nmoduleid = 01\n"
                                             "destn = f000:0000\ncompressed = no\n"
                                             "[module]\nfile = b.bin\nmoduleid = 02\n"
                                             "destn = f000:1000\ncompressed = no\n" +
                                             c.sections));
        std::string console;
        EXPECT_EQ(RunIn(dir.path(), {"out", "r.scr"}, console), c.status);
        std::vector<std::string> expected = {
            "ZELBIOS FWFORGE Version 3.33 (STRATA 2)",
            "Copyright (C) The FWFORGE Project. All rights reserved.", "", "Parsing r.scr..."};
        expected.insert(expected.end(), c.lines.begin(), c.lines.end());
        EXPECT_EQ(testing::SplitLines(console), expected);

        // The boot block file is written before the NVRAM phase runs.
        const auto int_file = testing::ReadBytes(dir.File("out/T1.int"));
        EXPECT_EQ(int_file.size(), c.bb_size);
        EXPECT_EQ(testing::SumDwords(int_file), 0u);
        ASSERT_EQ(fs::exists(dir.path() / "r.rom"), c.status == 0);
        if (c.status != 0) continue;

        const auto rom = testing::ReadBytes(dir.File("r.rom"));
        ASSERT_EQ(rom.size(), 0x40000u);
        const ReservedRange hole[] = {{ReservedRange::Hole, 0x10000, 0, 0xFF, {}}};
        const auto check =
            testing::CheckGapImage(rom, testing::LinkForm::Real16, hole, 0x2C000, false);
        for (const auto& p : check.problems) ADD_FAILURE() << p;
        ExpectChainHolds(rom, check.main,
                         {dir.path() / "a.bin", dir.path() / "b.bin", dir.path() / "out/T1.inf"});
        // The image information records the hole with size 0: kind 0, filler FF, image
        // offset 10000.
        const auto inf = testing::ReadBytes(dir.File("out/T1.inf"));
        const std::vector<std::uint8_t> hole_record = {0xFF, 0xFF, 0x50, 10, 1, 0, 0xFF, 0x00,
                                                       0x00, 0x01, 0x00, 0, 0, 0, 0};
        ASSERT_EQ(inf.size(), 42u + hole_record.size());
        EXPECT_EQ(std::vector<std::uint8_t>(inf.begin() + 42, inf.end()), hole_record);
    }
}

}  // namespace
}  // namespace fwforge
