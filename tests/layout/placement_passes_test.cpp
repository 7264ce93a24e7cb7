#include "layout/placement_passes.h"

#include <gtest/gtest.h>

#include "layout/layout_fixture.h"
#include "layout/module_insertion.h"
#include "layout/module_sizing.h"
#include "layout/module_split.h"

namespace fwforge {
namespace {

using testing::GapSpan;
using testing::GapSpans;
using testing::LayoutFixture;
using testing::SetGaps;

// Module records with only what selection reads.
void AddSized(LayoutFixture& f, std::uint32_t placed, std::uint8_t contiguous = 0,
              std::string region = "", std::uint8_t state = Unplaced) {
    ModuleEntry& m = f.ctx.description.ModuleTable[f.ctx.description.ModuleCount++];
    m.PlacedSize = placed;
    m.Contiguous = contiguous;
    m.RomRegion = std::move(region);
    m.PlacementState = state;
}

TEST(PlacementPasses, SelectionTakesTheLargestThenTheLowerIndex) {
    LayoutFixture f;
    AddSized(f, 0x100);
    AddSized(f, 0x300, 0, "SETUP");       // in a non-critical block
    AddSized(f, 0x200);
    AddSized(f, 0x400, 1);                // must not be split
    AddSized(f, 0x200);
    AddSized(f, 0x500, 0, "", Placed);
    AddSized(f, 0x600, 0, "", NoWholeFit);
    const std::uint32_t expected[] = {2, 4, 0, kNoModule};
    for (std::uint32_t want : expected) {
        const std::uint32_t m = SelectLargestUnplaced(f.ctx, 0);
        EXPECT_EQ(m, want);
        if (m != kNoModule) f.Module(m).PlacementState = Placed;
    }
    EXPECT_EQ(SelectLargestUnplaced(f.ctx, 1), 3u);
    // The splitting pass takes what is not placed, NoWholeFit included, by index.
    EXPECT_EQ(TakeNextUnplaced(f.ctx), 3u);
    EXPECT_EQ(TakeNextUnplaced(f.ctx), 6u);
    EXPECT_EQ(TakeNextUnplaced(f.ctx), kNoModule);
    EXPECT_EQ(f.Module(1).PlacementState, Unplaced);
}

TEST(PlacementPasses, WholeRoomIsTheBottomOfTheSmallestGapThatHoldsTheModule) {
    struct Case {
        const char* what;
        std::vector<GapSpan> gaps;
        std::uint32_t placed;
        std::uint8_t alignment;
        std::uint8_t result;
        std::uint32_t cursor;
        std::vector<GapSpan> after;
    } cases[] = {
        {"best fit", {{0x8, 0x3000}, {0x4000, 0x4800}, {0x5000, 0x6000}}, 0x700, 0, 0, 0x4000,
         {{0x8, 0x3000}, {0x4700, 0x4800}, {0x5000, 0x6000}}},
        {"exact fit empties the gap", {{0x8, 0x3000}, {0x4000, 0x4800}}, 0x800, 0, 0, 0x4000,
         {{0x8, 0x3000}, {0x4800, 0x4800}}},
        {"equal gaps: the lower one", {{0x1000, 0x2000}, {0x3000, 0x4000}, {0x5000, 0x5800}},
         0x900, 0, 0, 0x1000, {{0x1900, 0x2000}, {0x3000, 0x4000}, {0x5000, 0x5800}}},
        {"aligned data at 0x20008", {{0x20008, 0x30000}}, 0x80 - 4 + 0x100 + 20, 0x80, 0,
         0x2006C, {{0x20008 + 0x80 - 4 + 0x100 + 20, 0x30000}}},
        {"already aligned", {{0x20008, 0x30000}}, 0x100, 0x14, 0, 0x20008,
         {{0x20108, 0x30000}}},
        {"no gap holds it", {{0x8, 0x100}, {0x200, 0x300}}, 0x101, 0, 1, 0x1234,
         {{0x8, 0x100}, {0x200, 0x300}}},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        f.PrepareImage(0x1234);
        SetGaps(f, c.gaps);
        AddSized(f, c.placed);
        f.Module(0).Alignment = c.alignment;
        EXPECT_EQ(ReserveWholeRoom(f.ctx, 0), c.result) << c.what;
        EXPECT_EQ(f.ctx.image.PlacementCursor, c.cursor) << c.what;
        EXPECT_EQ(GapSpans(f), c.after) << c.what;
        EXPECT_EQ(f.Module(0).PlacementState, c.result == 0 ? Placed : NoWholeFit) << c.what;
    }
}

TEST(PlacementPasses, WholeRoomFollowsTheNewSizeOrder) {
    LayoutFixture f;
    f.PrepareImage(0x10000);
    SetGaps(f, {{0x1000, 0x2000}, {0x3000, 0x3800}});
    AddSized(f, 0x900);
    AddSized(f, 0x600);
    ASSERT_EQ(ReserveWholeRoom(f.ctx, 0), 0);  // leaves 0x700 in the first gap
    EXPECT_EQ(f.ctx.layout.gaps.GapSizeOrder, (std::vector<std::uint8_t>{0, 1}));
    ASSERT_EQ(ReserveWholeRoom(f.ctx, 1), 0);
    EXPECT_EQ(f.ctx.image.PlacementCursor, 0x1900u);
    EXPECT_EQ(f.ctx.layout.RoomEnd, 0x1F00u);
    // Split rooms leave the size order as it was: a whole reservation after them walks
    // the gaps in the old order (0x100, 0x800 bytes), checking their current sizes, and
    // takes the first gap although the second now holds only 0x10 bytes.
    ASSERT_EQ(TakeSplitRoom(f.ctx, 0x101, 0x7F0), 0x7F0u);
    AddSized(f, 0x10);
    ASSERT_EQ(ReserveWholeRoom(f.ctx, 2), 0);
    EXPECT_EQ(f.ctx.image.PlacementCursor, 0x1F00u);
}

TEST(PlacementPasses, SplitRoomIsTheFirstGapByAddress) {
    struct Case {
        const char* what;
        std::uint32_t minimum, wanted;
        std::uint32_t taken, cursor;
        std::vector<GapSpan> after;
    } cases[] = {
        {"first gap whole", 0x10, 0x2000, 0x20, 0x100,
         {{0x120, 0x120}, {0x1000, 0x1024}, {0x2000, 0x4000}, {0x5000, 0x5010}}},
        {"part of the first gap", 0x10, 0x18, 0x18, 0x100,
         {{0x118, 0x120}, {0x1000, 0x1024}, {0x2000, 0x4000}, {0x5000, 0x5010}}},
        {"a gap of exactly the minimum", 0x24, 0x2000, 0x24, 0x1000,
         {{0x100, 0x120}, {0x1024, 0x1024}, {0x2000, 0x4000}, {0x5000, 0x5010}}},
        {"minimum above the lower gaps", 0x25, 0x1000, 0x1000, 0x2000,
         {{0x100, 0x120}, {0x1000, 0x1024}, {0x3000, 0x4000}, {0x5000, 0x5010}}},
        {"no gap holds the minimum", 0x2001, 0x3000, 0, 0x1234,
         {{0x100, 0x120}, {0x1000, 0x1024}, {0x2000, 0x4000}, {0x5000, 0x5010}}},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        f.PrepareImage(0x1234);
        SetGaps(f, {{0x100, 0x120}, {0x1000, 0x1024}, {0x2000, 0x4000}, {0x5000, 0x5010}});
        // Taking split rooms leaves the size order as it was.
        EXPECT_EQ(TakeSplitRoom(f.ctx, c.minimum, c.wanted), c.taken) << c.what;
        EXPECT_EQ(f.ctx.image.PlacementCursor, c.cursor) << c.what;
        EXPECT_EQ(GapSpans(f), c.after) << c.what;
        EXPECT_EQ(f.ctx.layout.gaps.GapSizeOrder, (std::vector<std::uint8_t>{3, 0, 1, 2}))
            << c.what;
    }
}

// Alignments that are not multiples of 4 reserve Alignment - 1 bytes, so the shift of
// the data start stays inside the room whatever the room's start.
TEST(PlacementPasses, OddAlignmentStaysInsideItsRoom) {
    for (std::uint32_t start : {0x1000u, 0x1001u, 0x1002u, 0x1003u, 0x1005u}) {
        LayoutFixture f;
        testing::PrepareGaps(f, {{start, 0x3000}});
        const std::uint32_t m = f.AddModule("a.bin", testing::RandomBytes(0x101, 1), 0x01, 0x80);
        f.Module(m).Alignment = 7;
        SizeModule(f.ctx, m);
        EXPECT_EQ(f.Module(m).PlacedSize, 0x104u + 6 + 20);
        ASSERT_EQ(ReserveWholeRoom(f.ctx, m), 0);
        InsertModule(f.ctx, m);
        const std::uint32_t data = f.ctx.image.PlacementCursor + 20;
        EXPECT_EQ(data % 7, 0u) << start;
        EXPECT_LE(data + 0x104, start + f.Module(m).PlacedSize) << start;
    }
}

TEST(PlacementPasses, InsertionRefusesToRunPastItsRoom) {
    LayoutFixture f;
    testing::PrepareGaps(f, {});
    const std::uint32_t m = f.AddModule("a.bin", testing::RandomBytes(0x100, 1), 0x01, 0x80);
    SizeModule(f.ctx, m);
    f.ctx.image.PlacementCursor = 0x1000;
    f.ctx.layout.RoomEnd = 0x1000 + 0x110;
    EXPECT_EQ(f.FatalOf([&] { InsertModule(f.ctx, m); }),
              "Module " + f.Module(m).FileName +
                  " at image offset 1000 ends at 1114, past the end 1110 of the room reserved "
                  "for it (PlacedSize 114, alignment 0)");
}

}  // namespace
}  // namespace fwforge
