#include "layout/main_header.h"

#include <gtest/gtest.h>

#include "layout/layout_fixture.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;

// A 256 KB image below a 32 KB boot block and 16 KB of NVRAM: the header block ends at
// image offset 0x34000 (address f4000) and starts at 0x33FE0.
TEST(MainHeader, WorkedExampleOf256KImage) {
    LayoutFixture f;
    f.ctx.options.VerboseMode = true;
    f.ctx.description.RomImage.RomImageVersion = 0x12;
    f.ctx.description.RomImage.RomImageFlags = 0x02;
    f.ctx.description.BootBlockStamp = 0xA1B2C3D4;
    f.PrepareImage(0x34000);
    CreateMainHeader(f.ctx);

    EXPECT_EQ(f.console.str(),
              " Creating main BIOS header\n"
              "\nTop of BIOS (main header end) = f4000\n"
              "Placing main BIOS header at f3fe0\n\n");
    EXPECT_EQ(f.ctx.image.PlacementCursor, 0x33FE0u);
    EXPECT_EQ(f.ctx.layout.MainHeader, 0x33FEAu);
    EXPECT_EQ(f.ctx.layout.LastHeader, 0x33FEAu);
    const std::vector<std::uint8_t> expected = {
        0, 0, 0, 0, 0, 0x12, 0x02, 0, 8, 10,                  // extension
        'Z', 'E', 'L', 'B', 'I', 'O', 'S', 'C',                // signature
        0xD4, 0xC3, 0xB2, 0xA1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // stamp, length, checksum, link
    };
    const auto& img = f.Image();
    EXPECT_EQ(std::vector<std::uint8_t>(img.begin() + 0x33FE0, img.begin() + 0x34000), expected);
    EXPECT_EQ(img[0x33FDF], 0xFF);
    EXPECT_EQ(img[0x34000], 0xFF);
}

// Sequential placement: the bytes between the 8-byte boundary below the lowest item and
// that item become '0'; the region runs from the boundary to the header's end.
TEST(MainHeader, SequentialFinishPadsToEightBytes) {
    struct Case {
        std::uint32_t lowest;  // image offset of the lowest item
        std::uint16_t length;
    } cases[] = {{0x33FC3, (0x34000 - 0x33FC0) / 8}, {0x33FC0, (0x34000 - 0x33FC0) / 8},
                 {0x30007, (0x34000 - 0x30000) / 8}};
    for (const Case& c : cases) {
        LayoutFixture f;
        f.PrepareImage(0x34000);
        CreateMainHeader(f.ctx);
        f.ctx.image.PlacementCursor = c.lowest;
        FinishMainHeader(f.ctx, PlacementMode::Sequential);
        const std::uint32_t bottom = c.lowest & ~7u;
        for (std::uint32_t at = bottom; at < c.lowest; ++at) EXPECT_EQ(f.Image()[at], 0x30);
        EXPECT_EQ(f.Image()[bottom - 1], 0xFF);
        EXPECT_EQ(f.ctx.image.PlacementCursor, bottom);
        EXPECT_EQ(load_le16(&f.Image()[0x33FEA + 12]), c.length);
        EXPECT_EQ(testing::SumDwords(f.Image(), bottom, 0x34000 - bottom), 0u);
    }
}

TEST(MainHeader, GapFinishCoversEverythingBelowTheHeader) {
    LayoutFixture f;
    f.PrepareImage(0x34000);
    CreateMainHeader(f.ctx);
    f.ctx.image.ImageBuffer[0x100] = 0x5A;
    FinishMainHeader(f.ctx, PlacementMode::Gap);
    EXPECT_EQ(load_le16(&f.Image()[0x33FEA + 12]), 0x34000 / 8);
    EXPECT_EQ(testing::SumDwords(f.Image(), 0, 0x34000), 0u);
    EXPECT_EQ(f.ctx.image.PlacementCursor, 0x33FE0u);
}

// A region of 0x80000 bytes or more is capped: length 0xFFFF, checksum over the
// 0x7FFF8 bytes below the header's end only; the cursor keeps its place.
TEST(MainHeader, LongRegionIsCapped) {
    for (PlacementMode mode : {PlacementMode::Sequential, PlacementMode::Gap}) {
        LayoutFixture f(0x100000, 0x10000, 0);
        f.PrepareImage(0xF0000);
        CreateMainHeader(f.ctx);
        const std::uint32_t end = 0xF0000;
        f.ctx.image.PlacementCursor = 0x10005;
        f.ctx.image.ImageBuffer[end - 0x7FFF8 - 4] = 0x11;  // below the covered bytes
        FinishMainHeader(f.ctx, mode);
        EXPECT_EQ(load_le16(&f.Image()[end - 22 + 12]), 0xFFFF);
        EXPECT_EQ(testing::SumDwords(f.Image(), end - 0x7FFF8, 0x7FFF8), 0u);
        if (mode == PlacementMode::Sequential) {
            EXPECT_EQ(f.Image()[0x10000], 0x30);
            EXPECT_EQ(f.ctx.image.PlacementCursor, 0x10005u);
        }
    }
}

}  // namespace
}  // namespace fwforge
