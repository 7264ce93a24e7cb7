#include "layout/module_split.h"

#include <gtest/gtest.h>

#include <functional>

#include "layout/layout_fixture.h"
#include "layout/module_sizing.h"
#include "platform/text_format.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::GapSpan;
using testing::GapSpans;
using testing::LayoutFixture;
using testing::RandomBytes;
using testing::PrepareGaps;

struct Piece {
    std::uint32_t header;
    std::uint32_t data_size;
    std::uint8_t attributes;
    bool operator==(const Piece&) const = default;
};

std::vector<Piece> Chain(LayoutFixture& f) {
    FinishMainHeader(f.ctx, PlacementMode::Gap);
    const auto check = testing::CheckMainBios(f.Image(), testing::LinkForm::Real16);
    for (const auto& p : check.problems) ADD_FAILURE() << p;
    std::vector<Piece> pieces;
    for (const auto& e : check.chain) pieces.push_back({e.header, e.data_size, e.attributes});
    return pieces;
}

// The pieces' data in chain order, the last piece's own share included.
std::vector<std::uint8_t> JoinedData(LayoutFixture& f, const std::vector<Piece>& pieces) {
    std::vector<std::uint8_t> data;
    std::uint32_t so_far = 0;
    for (const Piece& p : pieces) {
        if (p.attributes & 0x40) continue;
        const std::uint32_t own = (p.attributes & 0x20) ? p.data_size : p.data_size - so_far;
        data.insert(data.end(), f.Image().begin() + p.header + 20,
                    f.Image().begin() + p.header + 20 + own);
        so_far += own;
    }
    return data;
}

TEST(SplitModule, WorkedExampleOverThreeGaps) {
    for (bool compatibility : {false, true}) {
        LayoutFixture f;
        f.ctx.options.CompatibilityMode = compatibility;
        const std::vector<std::uint8_t> file = RandomBytes(0x3000, 5);
        f.AddModule("big.bin", file, 0x01, 0x80);
        f.Module(0).Header.SetDestSegment(0xF000);
        PrepareGaps(f, {{0x1000, 0x1800}, {0x4000, 0x6000}, {0x8000, 0x9000}});
        SizeModule(f.ctx, 0);
        ASSERT_EQ(f.Module(0).PlacedSize, 0x3014u);
        f.ctx.layout.InsertionCounter = 7;
        SplitModule(f.ctx, 0);

        EXPECT_EQ(f.console.str(), " Splitting " + f.Module(0).FileName +
                                       " as module id 01\n  placing at c1000\n          at c4000\n"
                                       "          at c8000\n");
        EXPECT_EQ(GapSpans(f), (std::vector<GapSpan>{{0x1800, 0x1800}, {0x6000, 0x6000},
                                                      {0x883C, 0x9000}}));
        EXPECT_EQ(f.Module(0).InsertionIndex, 7);
        EXPECT_EQ(f.Image()[0x33FEA - 4], compatibility ? 0x00 : 0x04);
        EXPECT_EQ(f.ctx.description.RomImage.RomImageFlags & 0x04, 0x04);
        const std::vector<Piece> pieces = Chain(f);
        EXPECT_EQ(pieces, (std::vector<Piece>{{0x1000, 0x7EC, 0xA0}, {0x4000, 0x1FEC, 0xA0},
                                              {0x8000, 0x3000, 0x80}}));
        EXPECT_EQ(JoinedData(f, pieces), file);
        // Piece headers carry the module's identity but keep the image's bytes where
        // DataSize16 and Checksum would be.
        EXPECT_EQ(load_le16(&f.Image()[0x1000 + 18]), 0xF000);
        EXPECT_EQ(load_le16(&f.Image()[0x1000 + 12]), 0xFFFF);
        EXPECT_EQ(load_le32(&f.Image()[0x1000 + 4]), 0xFFFFFFFFu);
        EXPECT_EQ(load_le16(&f.Image()[0x8000 + 12]), 0x3000);
    }
}

TEST(SplitModule, PieceRulesAndRooms) {
    struct Case {
        const char* what;
        std::function<void(LayoutFixture&)> modules;  // the module to split is index 0
        std::vector<GapSpan> gaps;
        std::vector<Piece> chain;
        std::vector<GapSpan> after;
    } cases[] = {
        {"a later piece needs 36 bytes; a 36-byte gap takes 16 data bytes",
         [](LayoutFixture& f) { f.AddModule("m.bin", RandomBytes(0x800, 1), 0x01, 0x80); },
         {{0x1000, 0x1800}, {0x2000, 0x2023}, {0x3000, 0x3024}, {0x4000, 0x4100}},
         {{0x1000, 0x7EC, 0xA0}, {0x3000, 0x10, 0xA0}, {0x4000, 0x800, 0x80}},
         {{0x1800, 0x1800}, {0x2000, 0x2023}, {0x3024, 0x3024}, {0x4018, 0x4100}}},
        {"add-on ROM with two links: first room of 76 bytes at least, link headers below it; "
         "a later piece takes the lower gap",
         [](LayoutFixture& f) {
             const std::uint32_t rom = f.AddModule("vga.rom", RandomBytes(0x400, 2), 0x20, 0x80);
             f.Module(rom).Header.SetDestOffset(0x8086);
             f.Module(rom).Header.SetDestSegment(0x0102);
             f.AddLink(0x8086, 0x0103, 0x8086, 0x0102);
             f.AddLink(0x8086, 0x0104, 0x8086, 0x0102);
         },
         {{0x1000, 0x1048}, {0x2000, 0x2200}, {0x3000, 0x3400}},
         {{0x2028, 0x1C4, 0xA0}, {0x1000, 0x34, 0xA0}, {0x3000, 0x400, 0x80},
          {0x2014, 0x400, 0x40}, {0x2000, 0x400, 0x40}},
         {{0x1048, 0x1048}, {0x2200, 0x2200}, {0x321C, 0x3400}}},
        {"a first room larger than the stored data holds the whole module, unaligned",
         [](LayoutFixture& f) {
             f.AddModule("a.bin", RandomBytes(0x100, 3), 0x01, 0x80);
             f.Module(0).Alignment = 0x80;  // PlacedSize 0x100 + 0x7C + 20
         },
         {{0x1004, 0x1184}, {0x2000, 0x2400}},
         {{0x1004, 0x100, 0x80}},
         {{0x1184, 0x1184}, {0x2000, 0x2400}}},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        c.modules(f);
        PrepareGaps(f, c.gaps);
        for (std::uint32_t m = 0; m < f.ctx.description.ModuleCount; ++m) SizeModule(f.ctx, m);
        SplitModule(f.ctx, 0);
        EXPECT_EQ(GapSpans(f), c.after) << c.what;
        const std::vector<Piece> pieces = Chain(f);
        EXPECT_EQ(pieces, c.chain) << c.what;
        EXPECT_EQ(JoinedData(f, pieces), testing::ReadBytes(f.Module(0).FileName)) << c.what;
    }
}

TEST(SplitModule, NoRoomForAPieceEndsTheRun) {
    struct Case {
        const char* what;
        std::vector<GapSpan> gaps;
    } cases[] = {
        {"first piece: 36 bytes needed, 35 free", {{0x1000, 0x1023}}},
        {"later piece: only 35-byte gaps after the first", {{0x1000, 0x1100}, {0x2000, 0x2023}}},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        f.AddModule("m.bin", RandomBytes(0x200, 1), 0x01, 0x80);
        PrepareGaps(f, c.gaps);
        SizeModule(f.ctx, 0);
        EXPECT_EQ(f.FatalOf([&] { SplitModule(f.ctx, 0); }),
                  "No Space left for module: " + f.Module(0).FileName)
            << c.what;
        EXPECT_TRUE(f.ctx.image.ImageBuffer.empty()) << c.what;
    }
}

// The split module's data sum stays pending until the next header is linked to its last
// piece, which is then resealed with it.
TEST(SplitModule, NextModuleResealsTheLastPiece) {
    LayoutFixture f;
    f.AddModule("m.bin", RandomBytes(0x300, 1), 0x01, 0x80);
    f.AddModule("n.bin", RandomBytes(0x300, 2), 0x02, 0x80);
    PrepareGaps(f, {{0x1000, 0x1100}, {0x2000, 0x2800}});
    SizeModule(f.ctx, 0);
    SizeModule(f.ctx, 1);
    SplitModule(f.ctx, 0);
    EXPECT_NE(f.ctx.layout.SplitPending, 0u);
    SplitModule(f.ctx, 1);
    EXPECT_EQ(Chain(f), (std::vector<Piece>{{0x1000, 0xEC, 0xA0},
                                            {0x2000, 0x300, 0x80},
                                            {0x2228, 0x300, 0x80}}));
}

}  // namespace
}  // namespace fwforge
