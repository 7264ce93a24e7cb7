#include "layout/gap_map.h"

#include <gtest/gtest.h>

#include "layout/layout_fixture.h"

namespace fwforge {
namespace {

using testing::GapSpan;
using testing::GapSpans;
using testing::LayoutFixture;

struct Range {
    std::uint32_t start;  // ROM address, as the build script gives it
    std::uint32_t size;
};

void AddRanges(LayoutFixture& f, const std::vector<Range>& ranges) {
    BuildDescription& d = f.ctx.description;
    for (const Range& r : ranges) {
        RomHoleEntry& hole = d.RomHoleTable[d.RomHoleCount++];
        hole.StartAddress = r.start;
        hole.Size = r.size;
    }
}

// 256 KB image in 16-bit mode: AddressBase 0xC0000, the free area ends at 0x34000
// below a 32 KB boot block and 16 KB of NVRAM.
TEST(GapMap, WorkedExampleWithItsPrintedLines) {
    LayoutFixture f;
    f.PrepareImage(0x34000);
    AddRanges(f, {{0xE0000, 0x1000}, {0xF0000, 0x2000}});
    BuildGapMap(f.ctx);
    EXPECT_EQ(GapSpans(f),
              (std::vector<GapSpan>{{8, 0x20000}, {0x21000, 0x30000}, {0x32000, 0x34000}}));
    EXPECT_EQ(f.ctx.layout.gaps.GapSizeOrder, (std::vector<std::uint8_t>{2, 1, 0}));
    // The table now holds image offsets.
    EXPECT_EQ(f.ctx.description.RomHoleTable[0].StartAddress, 0x20000u);
    EXPECT_EQ(f.ctx.description.RomHoleTable[1].StartAddress, 0x30000u);
    PrintGapMap(f.ctx);
    EXPECT_EQ(f.console.str(),
              "  Gap[0]: start=c0008,  end=e0000,  size=1fff8\n"
              "  Gap[1]: start=e1000,  end=f0000,  size=f000\n"
              "  Gap[2]: start=f2000,  end=f4000,  size=2000\n"
              " Total space (remaining): 30ff8\n\n");
}

TEST(GapMap, LayoutOfRangesAtTheEdges) {
    struct Case {
        const char* what;
        bool flat;
        std::vector<Range> ranges;
        std::vector<GapSpan> gaps;
        std::vector<std::uint8_t> order;
    } cases[] = {
        {"range at image offset 0", false, {{0xC0000, 0x100}}, {{0x100, 0x34000}}, {0}},
        {"range ending at the top", false, {{0xF0000, 0x4000}}, {{8, 0x30000}}, {0}},
        {"touching ranges leave no empty gap", false,
         {{0xD0000, 0x1000}, {0xD1000, 0x800}, {0xE0000, 0x10}},
         {{8, 0x10000}, {0x11800, 0x20000}, {0x20010, 0x34000}}, {1, 0, 2}},
        {"ranges given in any order", false,
         {{0xF0000, 0x10}, {0xC0010, 0x10}, {0xE0000, 0x10}},
         {{8, 0x10}, {0x20, 0x20000}, {0x20010, 0x30000}, {0x30010, 0x34000}}, {0, 3, 2, 1}},
        {"both ends taken", false, {{0xC0000, 0x10}, {0xF3000, 0x1000}},
         {{0x10, 0x33000}}, {0}},
        {"a reservation of size 0 still splits its gap", false, {{0xE0000, 0}},
         {{8, 0x20000}, {0x20000, 0x34000}}, {1, 0}},
        {"equal sizes keep address order", false,
         {{0xC0000, 0x10}, {0xC1010, 0x10}, {0xC1820, 0x10}, {0xC2830, 0x10}},
         {{0x10, 0x1010}, {0x1020, 0x1820}, {0x1830, 0x2830}, {0x2840, 0x34000}}, {1, 0, 2, 3}},
        {"touching ranges over the whole free area leave no gap", false,
         {{0xC0000, 0x1000}, {0xC1000, 0x33000}}, {}, {}},
        {"32-bit addresses are image offsets", true, {{0x8000, 0x100}},
         {{8, 0x8000}, {0x8100, 0x34000}}, {0, 1}},
        // Ends are 32-bit: this one ends at 0x2FFF0, below its own start and the top.
        {"size wrapping past 4 GB", false, {{0xF0000, 0xFFFFFFF0}},
         {{8, 0x30000}, {0x2FFF0, 0x34000}}, {1, 0}},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        if (c.flat) f.Use32Bit();
        f.PrepareImage(0x34000);
        AddRanges(f, c.ranges);
        BuildGapMap(f.ctx);
        EXPECT_EQ(GapSpans(f), c.gaps) << c.what;
        EXPECT_EQ(f.ctx.layout.gaps.GapSizeOrder, c.order) << c.what;
    }
}

TEST(GapMap, InconsistentRangesEndTheRun) {
    struct Case {
        const char* what;
        bool flat;
        std::vector<Range> ranges;
        std::string message;
    } cases[] = {
        {"at 0x100000 in 16-bit mode", false, {{0x100000, 0x10}},
         "ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"below the ROM in 16-bit mode", false, {{0xE0000, 0x10}, {0xBFFF0, 0x10}},
         "ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"at BiosSize in 32-bit mode", true, {{0x40000, 0x10}},
         "ROMHOLE, NONCRITICALROM or Module StartAddress out of Range"},
        {"reaching into NVRAM", false, {{0xF3FF0, 0x20}},
         "ROMHOLE, NONCRITICALROM or Fixed Location Module conflicts with bootblock or NVRAM"},
        {"one range over the whole free area", false, {{0xC0000, 0x34000}},
         "ROMHOLE or NONCRITICALROM consumes entire free space"},
        {"same start address", false, {{0xE0000, 0x10}, {0xD0000, 0x10}, {0xE0000, 0x100}},
         "Two ROMHOLEs, NONCRITICALROMs or Modules have same StartAddress!"},
        {"overlap", false, {{0xE0000, 0x1010}, {0xE1000, 0x10}},
         "ROMHOLEs, NONCRITICALROMs or Modules overlap"},
        {"overlap reaching past the top", false, {{0xE0000, 0x40000}, {0xF0000, 0x10}},
         "ROMHOLEs, NONCRITICALROMs or Modules overlap"},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        if (c.flat) f.Use32Bit();
        f.PrepareImage(0x34000);
        AddRanges(f, c.ranges);
        EXPECT_EQ(f.FatalOf([&] { BuildGapMap(f.ctx); }), c.message) << c.what;
        EXPECT_TRUE(f.ctx.image.ImageBuffer.empty()) << c.what;  // released first
    }
}

TEST(GapMap, MainHeaderTakesTheTopOfTheHighestGapThatHoldsIt) {
    LayoutFixture f;
    f.PrepareImage(0x34000);
    // The gap above the range is 0x1F bytes: too small for the 32-byte block.
    AddRanges(f, {{0xE0000, 0x1000}, {0xF0000, 0x3FE1}});
    BuildGapMap(f.ctx);
    ASSERT_EQ(FindMainHeaderRoom(f.ctx), 0);
    EXPECT_EQ(f.ctx.image.PlacementCursor, 0x30000u);
    EXPECT_EQ(GapSpans(f),
              (std::vector<GapSpan>{{8, 0x20000}, {0x21000, 0x2FFE0}, {0x33FE1, 0x34000}}));
    EXPECT_EQ(f.ctx.layout.gaps.GapSizeOrder, (std::vector<std::uint8_t>{2, 1, 0}));
}

}  // namespace
}  // namespace fwforge
