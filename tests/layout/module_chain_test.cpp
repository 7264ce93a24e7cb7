#include "layout/module_chain.h"

#include <gtest/gtest.h>

#include "layout/layout_fixture.h"
#include "layout/main_header.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;

// The offset word stays between 8 and 23 so that segment:(offset - 8) reaches the
// header's first byte.
TEST(ModuleChain, RealModeLinksKeepTheOffsetAtEightOrMore) {
    struct Case {
        std::uint32_t base_address;  // real-mode address of the base header
        std::uint16_t offset, segment;
    } cases[] = {{0xF1234, 0x14, 0xF122}, {0xF123C, 0x0C, 0xF123}, {0xF1238, 0x08, 0xF123},
                 {0xF1237, 0x17, 0xF122}, {0xC0008, 0x08, 0xC000}};
    for (const Case& c : cases) {
        const std::uint32_t header = c.base_address - 0xC0000 - 8;
        EXPECT_EQ(RealModeLink(0x40000, header), c.offset | std::uint32_t(c.segment) << 16)
            << std::hex << c.base_address;
    }
}

// Writes a header with `data_size` data bytes of `fill` below the cursor and joins it
// to the chain, as every writer of a header does.
void WriteHeader(LayoutFixture& f, std::uint8_t id, std::uint8_t attributes,
                 std::uint32_t data_size, std::uint8_t fill) {
    ModuleHeaderImage h;
    h.SetModuleId(id);
    h.SetModuleAttributes(attributes);
    h.SetDataSize(data_size);
    h.SetDataSize16(data_size < 0x10000 ? data_size : 0xFFFF);
    const std::uint32_t data = attributes & 0x40 ? 0 : data_size;
    f.ctx.image.PlacementCursor -= 20 + data;
    auto at = f.ctx.image.ImageBuffer.begin() + f.ctx.image.PlacementCursor;
    std::copy(h.bytes.begin(), h.bytes.end(), at);
    std::fill_n(at + 20, data, fill);
    LinkToLastHeader(f.ctx);
    SealLastHeader(f.ctx);
    SealNewHeader(f.ctx);
    f.ctx.layout.LastHeader = f.ctx.image.PlacementCursor + 8;
}

TEST(ModuleChain, HeadersChainFromTheMainHeaderInWritingOrder) {
    for (bool flat : {false, true}) {
        LayoutFixture f;
        if (flat) f.Use32Bit();
        f.PrepareImage(0x34000);
        CreateMainHeader(f.ctx);
        WriteHeader(f, 0x01, 0x80, 0x12345, 0x3C);
        WriteHeader(f, 0x20, 0x80, 0x100, 0xA5);
        WriteHeader(f, 0x20, 0x40, 0x100, 0);
        FinishMainHeader(f.ctx, PlacementMode::Gap);

        const auto check = testing::CheckMainBios(
            f.Image(), flat ? testing::LinkForm::Flat32 : testing::LinkForm::Real16);
        EXPECT_TRUE(check.problems.empty()) << check.problems.front();
        ASSERT_EQ(check.chain.size(), 3u);
        EXPECT_EQ(check.chain[0].header, 0x33FE0u - 20 - 0x12345);
        EXPECT_EQ(check.chain[0].data_size16, 0xFFFF);
        EXPECT_EQ(check.chain[2].module_id, 0x20);
        const std::uint32_t first_link = load_le32(&f.Image()[0x33FEA + 18]);
        EXPECT_EQ(first_link, flat ? check.chain[0].header + 8
                                   : RealModeLink(0x40000, check.chain[0].header));
        EXPECT_EQ(load_le32(&f.Image()[check.chain[2].header + 8]), 0xFFFFFFFFu);
        // The linked add-on ROM's checksum covers its 20 header bytes only.
        EXPECT_EQ(testing::SumDwords(f.Image(), check.chain[2].header, 20), 0u);
    }
}

// A block's first module starts a chain of its own: it is not linked from the header
// written before, which keeps its seal; 32-bit links count from the block.
TEST(ModuleChain, SkipNextLinkAndBlockRelativeLinks) {
    LayoutFixture f;
    f.Use32Bit();
    f.PrepareImage(0x34000);
    CreateMainHeader(f.ctx);
    WriteHeader(f, 0x01, 0x80, 0x40, 0x11);
    const std::uint32_t before = f.ctx.layout.LastHeader - 8;
    const auto sealed = std::vector<std::uint8_t>(f.Image().begin() + before,
                                                  f.Image().begin() + before + 20);
    f.ctx.layout.SkipNextLink = true;
    f.ctx.layout.NcbBase = 0x20000;
    WriteHeader(f, 0x02, 0x80, 0x40, 0x22);
    EXPECT_FALSE(f.ctx.layout.SkipNextLink);
    EXPECT_EQ(
        std::vector<std::uint8_t>(f.Image().begin() + before, f.Image().begin() + before + 20),
        sealed);
    const std::uint32_t second = f.ctx.image.PlacementCursor;
    WriteHeader(f, 0x03, 0x80, 0x40, 0x33);
    EXPECT_EQ(load_le32(&f.Image()[second + 8]), f.ctx.image.PlacementCursor + 8 - 0x20000);
    EXPECT_EQ(testing::SumDwords(f.Image(), second, 20 + 0x40), 0u);
}

}  // namespace
}  // namespace fwforge
