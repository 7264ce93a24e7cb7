// Whole builds in gap placement: console, layout, and the invariants of every image.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "driver/image_build.h"
#include "layout/layout_fixture.h"
#include "platform/text_format.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;
using testing::RandomBytes;
using testing::ReservedRange;

std::uint32_t AddHole(LayoutFixture& f, std::uint32_t address, std::uint32_t size,
                      std::string name = "", std::string file = "", std::uint8_t filler = 0xFF) {
    BuildDescription& d = f.ctx.description;
    RomHoleEntry& h = d.RomHoleTable[d.RomHoleCount];
    h.StartAddress = address;
    h.Size = size;
    h.Name = std::move(name);
    h.FileName = file.empty() ? "" : f.dir.File(file);
    h.Filler = filler;
    d.RomImage.RomImageFlags |= 0x02;
    return d.RomHoleCount++;
}

// A module with a start address and its reservation, as the script reader makes them.
void SetStartAddress(LayoutFixture& f, std::uint32_t m, std::uint32_t address) {
    BuildDescription& d = f.ctx.description;
    ModuleEntry& e = d.ModuleTable[m];
    e.StartAddress = address;
    e.HeaderAddress = address - 20;
    e.RomHoleIndex = static_cast<std::uint8_t>(d.RomHoleCount);
    e.Contiguous = 1;
    RomHoleEntry& h = d.RomHoleTable[d.RomHoleCount++];
    h.StartAddress = e.HeaderAddress & ~0xFu;
    h.OwnerModule = static_cast<std::uint8_t>(m);
    h.Filler = 0;
    ++d.FixedModuleCount;
    ++d.ConstrainedModuleCount;
}

testing::GapImageCheck BuildAndCheck(LayoutFixture& f) {
    auto check = testing::BuildAndCheckGapImage(f.ctx, f.console, testing::LinkForm::Real16);
    for (const auto& p : check.problems) ADD_FAILURE() << p;
    return check;
}

// Ranges: a ROM hole with a file, a non-critical block with a module, a module at a
// start address; modules that must not be split, that fit whole, and one that is split.
void AddMixedBuild(LayoutFixture& f) {
    const std::uint32_t fix = f.AddModule("fix.bin", RandomBytes(0x100, 1), 0x03, 0x80);
    f.AddModule("nosplit.bin", RandomBytes(0x5000, 2), 0x04, 0x80);
    const std::uint32_t big = f.AddModule("big.bin", RandomBytes(0x20000, 3), 0x02, 0x80);
    f.Module(big).Contiguous = 0;
    const std::uint32_t small = f.AddModule("small.bin", RandomBytes(0x1000, 4), 0x06, 0x80);
    f.Module(small).Contiguous = 0;
    const std::uint32_t ncb = f.AddModule("ncb.bin", RandomBytes(0x200, 5), 0x05, 0x80);
    f.Module(ncb).RomRegion = "SETUP";
    SetStartAddress(f, fix, 0xF0000);
    testing::WriteBytes(f.dir.File("hole.bin"), RandomBytes(0x80, 6));
    AddHole(f, 0xD0000, 0x100, "", "hole.bin", 0x00);
    AddHole(f, 0xD8000, 0x1000, "SETUP");
}

TEST(GapBuild, VerboseConsoleOfAMixedBuild) {
    LayoutFixture f;
    f.ctx.options.VerboseMode = true;
    AddMixedBuild(f);
    const auto check = BuildAndCheck(f);
    ASSERT_EQ(check.main.chain.size(), 7u);
    const testing::ChainEntry& info = check.main.chain[6];
    const std::vector<std::uint8_t> rom = f.Rom();
    const bool info_compressed = !(info.attributes & 0x80);
    const std::uint32_t info_placed = info_compressed
                                          ? testing::Round4(load_le32(&rom[info.data()]) + 2) + 20
                                          : info.data_size + 20;
    auto name = [&](std::uint32_t m) { return f.Module(m).FileName; };
    const std::string inf = f.dir.File("TEST1.inf");
    const std::uint32_t gap3_start = 0x30100 + info_placed;
    EXPECT_EQ(f.Lines(), (std::vector<std::string>{
        "Generating boot block image...",
        "BIOS has no Extended Boot Block.",
        "Initializing NVRAM space below boot block...",
        "Gathering module size information",
        " " + name(0) + " (module id 3) size will be 114",
        " " + name(1) + " (module id 4) size will be 5014",
        " " + name(2) + " (module id 2) size will be 20014",
        " " + name(3) + " (module id 6) size will be 1014",
        " " + name(4) + " (module id 5) size will be 214",
        "Generating gap information",
        "",
        " BIOS gap map before module placement:",
        "  Gap[0]: start=c0008,  end=d0000,  size=fff8",
        "  Gap[1]: start=d0100,  end=d8000,  size=7f00",
        "  Gap[2]: start=d9000,  end=effe0,  size=16fe0",
        "  Gap[3]: start=f0100,  end=f4000,  size=3f00",
        " Total space (remaining): 32dd8",
        "",
        " Creating main BIOS header",
        "",
        "Top of BIOS (main header end) = f4000",
        "Placing main BIOS header at f3fe0",
        "",
        "",
        "Placing modules with specified fixed locations",
        "",
        " Inserting " + name(0) + " as module id 03 at effec",
        "",
        "Placing modules that can't be split",
        "",
        " Inserting " + name(1) + " as module id 04 at d0100",
        "",
        "Placing remaining modules that will fit without splitting",
        "",
        " Inserting " + name(3) + " as module id 06 at d5114",
        "",
        "Splitting unplaced modules",
        "",
        " Splitting " + name(2) + " as module id 02",
        "  placing at c0008",
        "          at d6128",
        "          at d9000",
        "",
        "Generating Image Information Module ...",
        StrFormat(" %s (module id 80) size will be %x", inf.c_str(), info_placed),
        " Inserting " + inf + " as module id 80" + (info_compressed ? " (compressed)" : "") +
            " at f0100",
        "",
        " BIOS gap map after all modules placed:",
        "  Gap[0]: start=d0000,  end=d0000,  size=0",
        "  Gap[1]: start=d8000,  end=d8000,  size=0",
        StrFormat("  Gap[2]: start=e716c,  end=effe0,  size=8e74"),
        StrFormat("  Gap[3]: start=%x,  end=f3fe0,  size=%x", gap3_start + 0xC0000,
                  0x33FE0 - gap3_start),
        StrFormat(" Total space (remaining): %x", 0x8E74 + 0x33FE0 - gap3_start),
        "",
        "Loading ROMHOLEs with filler data and files ...",
        "",
        " Inserting " + f.dir.File("hole.bin") + " in ROMHOLE at d0000",
        " Building non-critical block SETUP at 18000",
        " Inserting " + name(4) + " as module id 05 at d8018",
        "Non-critical block creation successful, creating header.",
    }));
    // Chain: fixed module, non-splittable, whole, three pieces (the last with the full
    // header), the image information module.
    const std::uint32_t headers[] = {0x2FFEC, 0x10100, 0x15114, 0x8, 0x16128, 0x19000, 0x30100};
    for (std::size_t i = 0; i < 7; ++i) EXPECT_EQ(check.main.chain[i].header, headers[i]) << i;
    EXPECT_EQ(check.main.chain[5].data_size, 0x20000u);
    EXPECT_EQ(rom[check.main.main_header - 4], 0x02 | 0x04);  // HasRomHoles, ModuleSplit
    ASSERT_EQ(check.blocks.size(), 1u);
    ASSERT_EQ(check.blocks[0].chain.size(), 1u);
    EXPECT_EQ(check.blocks[0].chain[0].header, 0x18018u);
    // The block's links are 32-bit from its start: the build is in 32-bit mode after it.
    EXPECT_TRUE(f.ctx.description.RomImage.Use32BitMode);
    EXPECT_EQ(load_le32(&rom[0x18000 + 20]), 0x20u);
    EXPECT_EQ(load_le32(&rom[0x18018 + 8]), 0xFFFFFFFFu);
}

// One module of PlacedSize 0x234 in a block of 0x1000 bytes at image offset 0x10000.
TEST(GapBuild, NonCriticalBlockWorkedExample) {
    LayoutFixture f;
    const std::uint32_t m = f.AddModule("ncb.bin", RandomBytes(0x220, 7), 0x09, 0x80);
    f.Module(m).RomRegion = "SETUP";
    AddHole(f, 0xD0000, 0x1000, "SETUP");
    const auto check = BuildAndCheck(f);
    const std::vector<std::uint8_t> rom = f.Rom();
    EXPECT_EQ(std::string(rom.begin() + 0x10000, rom.begin() + 0x10008), "ZELNCBLK");
    EXPECT_EQ(load_le16(&rom[0x10008]), 24);
    EXPECT_EQ(load_le32(&rom[0x1000C]), 0x1000u);
    EXPECT_EQ(load_le32(&rom[0x10014]), 0x20u);
    EXPECT_EQ(load_le32(&rom[0x10018 + 8]), 0xFFFFFFFFu);
    EXPECT_TRUE(std::equal(rom.begin() + 0x1002C, rom.begin() + 0x1024C,
                           testing::ReadBytes(f.Module(m).FileName).begin()));
    EXPECT_TRUE(std::all_of(rom.begin() + 0x1024C, rom.begin() + 0x11000,
                            [](std::uint8_t b) { return b == 0xFF; }));
    ASSERT_EQ(check.blocks.size(), 1u);
    EXPECT_EQ(check.blocks[0].chain.size(), 1u);
    // The main chain holds the image information module only.
    EXPECT_EQ(check.main.chain.size(), 1u);
}

TEST(GapBuild, BlocksHolesAndPlacementFailures) {
    // A ROM hole of 0x40 bytes at d0000 with a file of `size` bytes.
    auto hole_file = [](std::size_t size, std::uint8_t filler) {
        return [=](LayoutFixture& f) {
            testing::WriteBytes(f.dir.File("h.bin"), RandomBytes(size, 1));
            AddHole(f, 0xD0000, 0x40, "", "h.bin", filler);
        };
    };
    struct Case {
        const char* what;
        std::function<void(LayoutFixture&)> setup;
        std::vector<std::string> tail;  // the last console lines; {dir} is the temp folder
        std::string fatal;
        std::function<void(LayoutFixture&, const testing::GapImageCheck&)> check = {};
    } cases[] = {
        {"hole file shorter than the hole",
         hole_file(0x31, 0x5A),
         {" Inserting {dir}/h.bin in ROMHOLE at d0000"},
         ""},
        {"hole file as long as the hole",
         hole_file(0x40, 0xFF),
         {" Inserting {dir}/h.bin in ROMHOLE at d0000"},
         ""},
        {"hole file longer than the hole",
         hole_file(0x41, 0xFF),
         {" Inserting {dir}/h.bin in ROMHOLE at d0000", ""},
         "ROMHOLE smaller than specified file: {dir}/h.bin"},
        {"hole file missing",
         [](LayoutFixture& f) { AddHole(f, 0xD0000, 0x40, "", "none.bin"); },
         {" Inserting {dir}/none.bin in ROMHOLE at d0000", ""},
         "Cannot open ROMHOLE file: {dir}/none.bin"},
        {"hole files before and after a block: ROM address, then image offset",
         [](LayoutFixture& f) {
             testing::WriteBytes(f.dir.File("h.bin"), RandomBytes(0x10, 1));
             AddHole(f, 0xD0000, 0x40, "", "h.bin");
             AddHole(f, 0xD1000, 0x100, "EMPTY");
             AddHole(f, 0xD2000, 0x40, "", "h.bin");
         },
         {" Inserting {dir}/h.bin in ROMHOLE at d0000",
          " Building non-critical block EMPTY at 11000",
          "Non-critical block creation successful, creating header.",
          " Inserting {dir}/h.bin in ROMHOLE at 12000"},
         ""},
        {"empty block of the smallest size that holds the header",
         [](LayoutFixture& f) { AddHole(f, 0xD0000, 24, "TINY"); },
         {" Building non-critical block TINY at 10000",
          "Non-critical block creation successful, creating header."},
         ""},
        {"block too small for its header",
         [](LayoutFixture& f) { AddHole(f, 0xD0000, 0x10, "TINY"); },
         {" Building non-critical block TINY at 10000", ""},
         "Non-critical block too small for header"},
        {"two modules in a block, an empty block; a module whose region names no block is "
         "placed nowhere",
         [](LayoutFixture& f) {
             f.Module(f.AddModule("a.bin", RandomBytes(0x100, 1), 0x11, 0x80)).RomRegion = "B";
             f.Module(f.AddModule("x.bin", RandomBytes(0x100, 2), 0x12, 0x80)).RomRegion = "NONE";
             f.Module(f.AddModule("b.bin", RandomBytes(0x80, 3), 0x13, 0x80)).RomRegion = "B";
             AddHole(f, 0xD0000, 0x400, "B");
             AddHole(f, 0xD1000, 0x20, "EMPTY");
         },
         {" Building non-critical block B at 10000",
          " Inserting {dir}/a.bin as module id 11 at d0018",
          " Inserting {dir}/b.bin as module id 13 at d012c",
          "Non-critical block creation successful, creating header.",
          " Building non-critical block EMPTY at 11000",
          "Non-critical block creation successful, creating header."},
         "",
         [](LayoutFixture& f, const testing::GapImageCheck& check) {
             EXPECT_EQ(f.console.str().find("x.bin"), std::string::npos);
             const std::vector<std::uint8_t> rom = f.Rom();
             // The second module's header starts PlacedSize bytes after the first's; the
             // first links to it by its offset from the block's start.
             EXPECT_EQ(load_le32(&rom[0x10018 + 8]), 24u + 0x114 + 8);
             EXPECT_EQ(load_le32(&rom[0x11000 + 20]), 0xFFFFFFFFu);
             ASSERT_EQ(check.blocks.size(), 2u);
             EXPECT_EQ(check.blocks[0].chain.size(), 2u);
             EXPECT_TRUE(check.blocks[1].chain.empty());
             EXPECT_EQ(check.main.chain.size(), 1u);  // the image information module
         }},
        {"module larger than the rest of its block",
         [](LayoutFixture& f) {
             f.Module(f.AddModule("a.bin", RandomBytes(0x100, 1), 0x11, 0x80)).RomRegion = "B";
             f.Module(f.AddModule("b.bin", RandomBytes(0x100, 2), 0x13, 0x80)).RomRegion = "B";
             AddHole(f, 0xD0000, 0x220, "B");
         },
         {" Building non-critical block B at 10000",
          " Inserting {dir}/a.bin as module id 11 at d0018", " Error inserting module: {dir}/b.bin",
          ""},
         "Non-critical block too small for module."},
        {"module that must not be split and fits no gap, after the fixed-location pass",
         [](LayoutFixture& f) {
             f.AddModule("n.bin", RandomBytes(0x20000, 1), 0x01, 0x80);
             AddHole(f, 0xE0000, 0x10);
         },
         {"Placing modules with specified fixed locations", "", "",
          "Placing modules that can't be split", "", ""},
         "NON-SPLITTABLE module can not be placed"},
        {"no gap for the main BIOS header",
         [](LayoutFixture& f) {
             AddHole(f, 0xC0000, 0x20000);
             AddHole(f, 0xE0000, 0x14000);
         },
         {"Generating gap information", ""},
         "Main BIOS header can not be placed"},
        {"no room left to split a module into",
         [](LayoutFixture& f) {
             f.Module(f.AddModule("n.bin", RandomBytes(0x40000, 1), 0x01, 0x80)).Contiguous = 0;
             AddHole(f, 0xE0000, 0x10);
         },
         {"Splitting unplaced modules", "", " Splitting {dir}/n.bin as module id 01",
          "  placing at c0008", "          at e0010", ""},
         "No Space left for module: {dir}/n.bin"},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        c.setup(f);
        std::vector<std::string> tail;
        for (const auto& line : c.tail) tail.push_back(f.InDir(line));
        if (c.fatal.empty()) {
            const testing::GapImageCheck check = BuildAndCheck(f);
            if (c.check) c.check(f, check);
        } else {
            EXPECT_EQ(f.FatalOf([&] { BuildRomImage(f.ctx); }), f.InDir(c.fatal)) << c.what;
            tail.push_back("FATAL ERROR: " + f.InDir(c.fatal));
        }
        const auto lines = f.Lines();
        ASSERT_GE(lines.size(), tail.size()) << c.what;
        EXPECT_EQ(std::vector<std::string>(lines.end() - tail.size(), lines.end()), tail) << c.what;
    }
}

// An add-on ROM at a start address with two links: its header 20 bytes below the start,
// the link headers below that, the reservation grown down to a paragraph under them.
TEST(GapBuild, FixedAddonRomWithLinks) {
    LayoutFixture f;
    const std::uint32_t rom_index = f.AddModule("vga.rom", RandomBytes(0x300, 1), 0x20, 0x80);
    f.Module(rom_index).Header.SetDestOffset(0x8086);
    f.Module(rom_index).Header.SetDestSegment(0x0102);
    SetStartAddress(f, rom_index, 0xE0000);
    f.AddLink(0x8086, 0x0103, 0x8086, 0x0102);
    f.AddLink(0x8086, 0x0104, 0x8086, 0x0102);
    const auto check = BuildAndCheck(f);
    // Every pass heading, even of the passes with nothing to do; no ROM holes to load
    // when the only reserved range is a start address.
    EXPECT_EQ(f.Lines(), (std::vector<std::string>{
        "Generating boot block image...",
        "BIOS has no Extended Boot Block.",
        "Initializing NVRAM space below boot block...",
        "Gathering module size information",
        "Generating gap information",
        " Creating main BIOS header",
        "",
        "Placing modules with specified fixed locations",
        "",
        " Inserting " + f.dir.File("vga.rom") + " as module id 20 at dffec",
        " Inserting linked addon-rom at dffd8",
        " Inserting linked addon-rom at dffc4",
        "",
        "Placing modules that can't be split",
        "",
        "",
        "Placing remaining modules that will fit without splitting",
        "",
        "",
        "Splitting unplaced modules",
        "",
        "",
        "Generating Image Information Module ...",
        " Inserting " + f.dir.File("TEST1.inf") + " as module id 80 at e0300",
    }));
    const RomHoleEntry& hole = f.ctx.description.RomHoleTable[0];
    EXPECT_EQ(hole.StartAddress, 0x1FFC0u);
    EXPECT_EQ(hole.Size, 0x340u);
    ASSERT_EQ(check.main.chain.size(), 4u);
    EXPECT_EQ(check.main.chain[0].header, 0x1FFECu);
    EXPECT_EQ(check.main.chain[1].header, 0x1FFD8u);
    EXPECT_EQ(check.main.chain[2].header, 0x1FFC4u);
    EXPECT_EQ(check.main.chain[2].data_size, 0x300u);
}

// The image information module split as the last item of the main BIOS: the first
// module of the block built after it is sealed while the split is still pending, so
// its checksum counts the split data instead of its own.
TEST(GapBuild, BlockAfterASplitImageInformationModule) {
    LayoutFixture f;
    f.Module(f.AddModule("a.bin", RandomBytes(0x100, 1), 0x11, 0x80)).RomRegion = "B";
    // Four gaps of 0x40 bytes and one of 32 at the top for the main BIOS header: the
    // image information module fits none of them whole.
    AddHole(f, 0xC0000, 0x40);
    AddHole(f, 0xC0040, 0x1000, "B");
    for (std::uint32_t a = 0xC1080; a < 0xC1170; a += 0x50) AddHole(f, a, 0x10);
    AddHole(f, 0xC1170, 0x33FE0 - 0x1170);
    f.console.str("");
    const auto check = BuildAndCheck(f);
    EXPECT_NE(f.console.str().find(" Splitting " + f.dir.File("TEST1.inf")), std::string::npos);
    ASSERT_EQ(check.blocks.size(), 1u);
    ASSERT_EQ(check.blocks[0].chain.size(), 1u);
    EXPECT_EQ(testing::CheckNcb(f.Rom(), 0x40).problems.size(), 1u);
}

}  // namespace
}  // namespace fwforge