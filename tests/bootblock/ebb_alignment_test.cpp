// The build script refuses `alignment` together with `romregion`, so no golden case can
// give the Extended Boot Block an aligned module; this pins how the block places one.

#include <gtest/gtest.h>

#include <sstream>

#include "script/ebb_module_list.h"
#include "bootblock/extended_boot_block.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

// The data of an aligned module, not its header, starts on a multiple of the alignment
// in the image; the bytes skipped before its header stay erased.
TEST(ExtendedBootBlock, AlignmentPlacesTheDataOnAMultipleInTheImage) {
    struct Case {
        std::uint8_t alignment;
        std::uint32_t header;  // EBB offset of the aligned module's header
    } cases[] = {{7, 0x41}, {0x40, 0x6C}, {0xFF, 0x78}};
    for (const Case& c : cases) {
        testing::TempDir dir;
        std::ostringstream console;
        BuildContext ctx(console);
        ctx.description.Bios.MaxEbbSize = 0x1000;
        ctx.image.ImageBuffer.assign(0x40000, 0xFF);
        ctx.image.PlacementCursor = 0x38000;  // the EBB is 37000-37fff
        for (std::uint8_t alignment : {std::uint8_t(0), c.alignment}) {
            ModuleEntry m;
            m.FileName = dir.File(alignment ? "aligned.bin" : "first.bin");
            testing::WriteBytes(m.FileName, testing::RandomBytes(0x10, alignment));
            m.Header.SetModuleAttributes(module_attr::NotCompressed);
            m.RomRegion = "EBB";
            m.Alignment = alignment;
            ASSERT_EQ(AddEbbModule(ctx.description, m), EbbOffer::Taken);
        }
        BuildExtendedBootBlock(ctx);
        EXPECT_EQ(ctx.description.EbbModuleList[1].EbbOffset, c.header) << int(c.alignment);
        EXPECT_EQ((0x37000 + c.header + 20) % c.alignment, 0u);
        // The first module's link leads to the aligned module's base header.
        EXPECT_EQ(load_le32(&ctx.image.ImageBuffer[0x37000 + 24 + 8]), c.header + 8);
        EXPECT_EQ(ctx.image.ImageBuffer[0x37000 + 24 + 20 + 0x10], 0xFF);
    }
}

}  // namespace
}  // namespace fwforge
