#include "bootblock/nvram_area.h"

#include <gtest/gtest.h>

#include "bootblock/region_fixture.h"

namespace fwforge {
namespace {

using testing::AllBytesAre;
using testing::RegionBuild;

constexpr char kProgress[] = "Initializing NVRAM space below boot block...\n";

// A 256 KB image with a 32 KB boot block already taken from the top; the image starts
// zeroed here so that the erased area shows.
struct NvramBuild : RegionBuild {
    explicit NvramBuild(std::uint32_t nvram_size) : RegionBuild(0x40000) {
        ctx.description.Bios.BootBlockSize = 0x8000;
        ctx.description.Bios.NvramSize = nvram_size;
        ctx.image.ImageBuffer.assign(0x40000, 0x00);
        ctx.image.PlacementCursor = 0x38000;
    }
};

// Size 0 does nothing, not even the progress line.
TEST(NvramArea, ErasesTheAreaBelowTheBootBlock) {
    for (std::uint32_t size : {0u, 0x4000u}) {
        NvramBuild b(size);
        ASSERT_EQ(b.Run(InitNvramArea), "");
        EXPECT_EQ(b.console.str(), size ? kProgress : "");
        EXPECT_EQ(b.ctx.image.PlacementCursor, 0x38000u - size);
        const auto& image = b.ctx.image.ImageBuffer;
        EXPECT_TRUE(AllBytesAre(image, 0, 0x38000 - size, 0x00));
        EXPECT_TRUE(AllBytesAre(image, 0x38000 - size, 0x38000, 0xFF));
        EXPECT_TRUE(AllBytesAre(image, 0x38000, 0x40000, 0x00));
    }
}

TEST(NvramArea, BadSizesEndTheRunAfterTheProgressLine) {
    struct Case {
        std::uint32_t nvram_size;
        std::uint32_t max_ebb_size;
        std::uint32_t cursor;
        const char* message;
    };
    const char* const kSum = "Sum of Nvram and Boot Block must be smaller than total BIOS size";
    const Case cases[] = {
        {0x4008, 0, 0x38000, "NVRAM size must be a multiple of 16"},
        {0x38000, 0, 0x38000, kSum},                 // exactly the rest of the image
        {0x30000, 0x8000, 0x30000, kSum},            // the EBB counts too
        {0xFFFFFFF0, 0x10, 0x38000, kSum},           // a sum that would wrap in 32 bits
        {0x4000, 0, 0x2000,                          // a cursor left too low
         "NVRAM area does not fit in the ROM image: nvramsize 0x00004000 is larger than the "
         "0x00002000 bytes left below the boot block and the Extended Boot Block"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.nvram_size);
        NvramBuild b(c.nvram_size);
        b.ctx.description.Bios.MaxEbbSize = c.max_ebb_size;
        b.ctx.image.PlacementCursor = c.cursor;
        EXPECT_EQ(b.Run(InitNvramArea), c.message);
        EXPECT_EQ(b.console.str(), std::string(kProgress) + "\nFATAL ERROR: " + c.message + "\n");
        EXPECT_EQ(b.ctx.image.PlacementCursor, c.cursor);
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, 0x40000, 0x00));
    }
}

}  // namespace
}  // namespace fwforge
