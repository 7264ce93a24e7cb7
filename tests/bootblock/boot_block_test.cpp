#include "bootblock/boot_block.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "bootblock/region_fixture.h"

namespace fwforge {
namespace {

using testing::AllBytesAre;
using testing::ReadBytes;
using testing::RegionBuild;
using testing::SumOf;
using testing::WriteBytes;

constexpr char kProgress[] = "Generating boot block image...\n";

// A build with a boot block file of `file_size` random bytes.
struct BootBlockBuild : RegionBuild {
    BootBlockBuild(std::uint32_t bios_size, std::uint32_t bb_size, std::size_t file_size)
        : RegionBuild(bios_size), file(testing::RandomBytes(file_size, 7)) {
        ctx.description.Bios.BootBlockSize = bb_size;
        ctx.description.Init.BootBlockFile = dir.File("boot.bin");
        WriteBytes(ctx.description.Init.BootBlockFile, file);
    }
    std::vector<std::uint8_t> file;
};

// The boot block is the top of the 64 KB segment of the file, its checksum and tag
// written at their offsets in that segment (0 in the table: the default offsets).
TEST(BootBlock, FileCopyCoversOnlyTheBootBlock) {
    struct Case {
        std::uint32_t bb_size;
        std::size_t file_size;
        std::size_t copied;  // leading boot block bytes taken from the file
        std::uint32_t checksum_offset;
        std::uint32_t tag_offset;
        const char* tag;
    };
    const Case cases[] = {
        {0x2000, 0x10000, 0x2000, 0, 0, "X1234"},              // defaults E000 and FFE0
        {0x10000, 0x10000, 0x10000, 0xFFF0, 0xFFE0, "X1234"},  // the whole file
        {0x2000, 0xF000, 0x1000, 0xFFF0, 0xFFE0, "X1234"},     // short: copied as far as it reaches
        {0x2000, 0xD000, 0, 0xFFF0, 0xFFE0, "X1234"},          // ends below the boot block
        {0x2000, 0x12000, 0x2000, 0xFFF0, 0xFFE0, "X1234"},    // longer: only the boot block
        {0x1000, 0x10000, 0x1000, 0xF000, 0xFFF4, "ABCDEFGHIJK"},  // tag's zero is the last byte
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file_size);
        BootBlockBuild b(0x20000, c.bb_size, c.file_size);
        if (c.checksum_offset != 0) b.ctx.description.Init.ChecksumOffset = c.checksum_offset;
        if (c.tag_offset != 0) b.ctx.description.Init.BiosTagOffset = c.tag_offset;
        b.ctx.description.Bios.BiosTag = c.tag;
        const std::string int_file = b.dir.File(std::string(c.tag) + ".int");
        WriteBytes(int_file, std::vector<std::uint8_t>(0x11000, 0x11));  // replaced
        ASSERT_EQ(b.Run(BuildBootBlock), "");
        EXPECT_EQ(b.console.str(), kProgress);
        EXPECT_EQ(b.ctx.image.PlacementCursor, 0x20000 - c.bb_size);
        const std::vector<std::uint8_t> bb = ReadBytes(int_file);
        ASSERT_EQ(bb.size(), c.bb_size);
        EXPECT_EQ(SumOf(bb), 0u);
        const std::size_t first = 0x10000 - c.bb_size;
        const std::size_t checksum_at = (c.checksum_offset ? c.checksum_offset : 0xE000) - first;
        const std::size_t tag_at = (c.tag_offset ? c.tag_offset : 0xFFE0) - first;
        const std::string tag(c.tag, std::strlen(c.tag) + 1);
        EXPECT_EQ(std::string(bb.begin() + tag_at, bb.begin() + tag_at + tag.size()), tag);
        for (std::size_t i = 0; i < c.bb_size; ++i) {
            if ((i >= tag_at && i < tag_at + tag.size()) ||
                (i >= checksum_at && i < checksum_at + 4))
                continue;
            ASSERT_EQ(bb[i], i < c.copied ? b.file[first + i] : 0) << "at " << i;
        }
        EXPECT_EQ(b.Image(0x20000 - c.bb_size, c.bb_size), bb);
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, 0x20000 - c.bb_size, 0xFF));
    }
}

TEST(BootBlock, FailuresReportTheirMessageAfterTheProgressLine) {
    struct Case {
        const char* name;
        std::function<void(BootBlockBuild&)> setup;
        const char* message;
    };
    const char* const kSizeMessage = "Boot block size must be a multiple of 4 between 4 and 65536";
    const char* const kOffsetMessage =
        "Boot block checksum or tag offset lies outside the boot block";
    const Case cases[] = {
        {"size 0", [](auto& b) { b.ctx.description.Bios.BootBlockSize = 0; }, kSizeMessage},
        {"size 6", [](auto& b) { b.ctx.description.Bios.BootBlockSize = 6; }, kSizeMessage},
        {"size 64K+4", [](auto& b) { b.ctx.description.Bios.BootBlockSize = 0x10004; },
         kSizeMessage},
        {"checksum below", [](auto& b) { b.ctx.description.Init.ChecksumOffset = 0xDFFC; },
         kOffsetMessage},
        {"checksum across the top", [](auto& b) { b.ctx.description.Init.ChecksumOffset = 0xFFFE; },
         kOffsetMessage},
        {"checksum far off", [](auto& b) { b.ctx.description.Init.ChecksumOffset = 0xFFFFFFFC; },
         kOffsetMessage},
        {"tag below", [](auto& b) { b.ctx.description.Init.BiosTagOffset = 0xD000; },
         kOffsetMessage},
        {"tag zero byte past the top",
         [](auto& b) { b.ctx.description.Init.BiosTagOffset = 0xFFFB; }, kOffsetMessage},
        {"larger than the image",
         [](auto& b) {
             b.ctx.description.Bios.BiosSize = 0x1000;
             b.StartImage();
         },
         "Boot block does not fit in the ROM image: bbsize 0x00002000 is larger than the "
         "0x00001000 bytes left of size 0x00001000"},
        {"no boot block file",
         [](auto& b) { b.ctx.description.Init.BootBlockFile = b.dir.File("missing.bin"); },
         "Cannot open boot block file"},
        {"no output folder", [](auto& b) { b.ctx.options.OutputPath = b.dir.File("absent"); },
         "Cannot create boot block file"},
        {"output cannot be written",
         [](auto& b) { std::filesystem::create_symlink("/dev/full", b.dir.File("X1234.int")); },
         "Cannot write to boot block file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        BootBlockBuild b(0x20000, 0x2000, 0x10000);
        c.setup(b);
        const std::uint32_t cursor = b.ctx.image.PlacementCursor;
        EXPECT_EQ(b.Run(BuildBootBlock), c.message);
        EXPECT_EQ(b.console.str(), std::string(kProgress) + "\nFATAL ERROR: " + c.message + "\n");
        EXPECT_EQ(b.ctx.image.PlacementCursor, cursor);
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, b.ctx.image.ImageBuffer.size(), 0xFF));
    }
}

}  // namespace
}  // namespace fwforge
