#include "bootblock/extended_boot_block.h"

#include <gtest/gtest.h>

#include "bootblock/block_header.h"
#include "bootblock/region_fixture.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

using testing::AllBytesAre;
using testing::RegionBuild;

constexpr char kProgress[] = "Generating Extended Boot Block image...\n";

// A 256 KB image whose 32 KB boot block has been placed: the EBB ends at 0x38000.
struct EbbBuild : RegionBuild {
    explicit EbbBuild(std::uint32_t max_ebb_size, std::uint32_t bios_size = 0x40000)
        : RegionBuild(bios_size) {
        ctx.description.Bios.BootBlockSize = 0x8000;
        ctx.description.Bios.MaxEbbSize = max_ebb_size;
        ctx.image.PlacementCursor = bios_size - 0x8000;
    }
    std::size_t Start() const {
        return ctx.description.Bios.BiosSize - 0x8000 - ctx.description.Bios.MaxEbbSize;
    }

    // Adds a module (stored as in its file unless `attributes` says otherwise) with a
    // file of `size` pseudo-random bytes.
    EbbModuleRecord& Add(std::size_t size, std::uint8_t id = 0x12,
                         std::uint8_t attributes = module_attr::NotCompressed) {
        EbbModuleRecord record;
        record.FileName = dir.File("ebb" + std::to_string(ctx.description.EbbModuleList.size()) + ".bin");
        record.Header.SetModuleId(id);
        record.Header.SetModuleAttributes(attributes);
        record.Header.SetDestOffset(0x1234);
        record.Header.SetDestSegment(0xF000);
        files.push_back(testing::RandomBytes(size, std::uint32_t(size + files.size())));
        testing::WriteBytes(record.FileName, files.back());
        ctx.description.EbbModuleList.push_back(record);
        return ctx.description.EbbModuleList.back();
    }
    std::string InsertLine(std::size_t index, std::size_t header_offset) const {
        const EbbModuleRecord& r = ctx.description.EbbModuleList[index];
        return " Inserting " + r.FileName + " as module id " +
               StrFormat("%02X", r.Header.ModuleId()) + StrFormat(" at %zx\n", header_offset);
    }

    std::vector<std::vector<std::uint8_t>> files;
};

struct EbbModule {
    std::size_t header;  // offset in the EBB
    std::uint32_t data_size;
};

// Checks the block header, both checksums and every module's checksum, and walks the
// links from FirstModuleOffset to 0xFFFFFFFF. Returns the modules in chain order.
std::vector<EbbModule> WalkEbb(const EbbBuild& b) {
    using namespace block_header;
    const std::vector<std::uint8_t> ebb = b.Image(b.Start(), b.ctx.description.Bios.MaxEbbSize);
    EXPECT_EQ(std::string(ebb.begin(), ebb.begin() + 8), "ZELEBBLK");
    EXPECT_EQ(load_le16(&ebb[HeaderLength.offset]), 24);
    EXPECT_EQ(load_le32(&ebb[BlockLength.offset]), ebb.size());
    std::vector<std::uint8_t> unsealed = ebb;
    store_le16(&unsealed[HeaderChecksum.offset], 0);
    EXPECT_EQ(DwordSum(unsealed, 0, unsealed.size()), 0u) << "block checksum";
    EXPECT_EQ(load_le16(&ebb[HeaderChecksum.offset]),
              std::uint16_t(0u - DwordSum(unsealed, 0, kSize)))
        << "header checksum";

    std::vector<EbbModule> modules;
    std::uint32_t link = load_le32(&ebb[FirstModuleOffset.offset]);
    while (link != 0xFFFFFFFF && modules.size() <= kMaxEbbModules) {
        const std::size_t header = link - module_header::kExtensionSize;
        if (header + module_header::kSize > ebb.size()) {
            ADD_FAILURE() << "link " << link << " leaves the EBB";
            break;
        }
        const std::uint32_t size = load_le32(&ebb[header]);
        EXPECT_LE(header + module_header::kSize + size, ebb.size());
        EXPECT_EQ(DwordSum(ebb, header, module_header::kSize + size), 0u) << "module at " << header;
        EXPECT_EQ(load_le16(&ebb[header + module_header::DataSize16.offset]),
                  size >= 0x10000 ? 0xFFFF : size);
        modules.push_back({header, size});
        link = load_le32(&ebb[header + module_header::NextModuleLink.offset]);
    }
    return modules;
}

TEST(ExtendedBootBlock, NoBlockLeavesTheImageAlone) {
    EbbBuild b(0);
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    EXPECT_EQ(b.console.str(), "BIOS has no Extended Boot Block.\n");
    EXPECT_EQ(b.ctx.image.PlacementCursor, 0x38000u);
    EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, 0x40000, 0xFF));
}

TEST(ExtendedBootBlock, BlockWithoutModulesIsABareHeader) {
    EbbBuild b(0x1000);
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    EXPECT_EQ(b.console.str(), kProgress);
    EXPECT_EQ(b.ctx.image.PlacementCursor, 0x37000u);
    EXPECT_TRUE(WalkEbb(b).empty());
    EXPECT_EQ(load_le32(&b.ctx.image.ImageBuffer[0x37000 + 20]), 0xFFFFFFFFu);
    EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0x37018, 0x40000, 0xFF));
    EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, 0x37000, 0xFF));
}

TEST(ExtendedBootBlock, ModulesArePackedUpwardsAndChained) {
    struct Case {
        std::vector<std::size_t> file_sizes;
        std::vector<std::size_t> headers;       // EBB offsets
        std::vector<std::uint32_t> data_sizes;  // rounded up to 4
    };
    const Case cases[] = {
        {{100}, {24}, {100}},
        {{0x40, 0x23}, {24, 24 + 0x40 + 20}, {0x40, 0x24}},
        {{0, 5, 0x200}, {24, 44, 44 + 8 + 20}, {0, 8, 0x200}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file_sizes.size());
        EbbBuild b(0x1000);
        for (std::size_t size : c.file_sizes) b.Add(size);
        ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
        EXPECT_EQ(b.ctx.image.PlacementCursor, 0x37000u);

        std::string console = kProgress;
        for (std::size_t i = 0; i < c.headers.size(); ++i) console += b.InsertLine(i, 0x37000 + c.headers[i]);
        EXPECT_EQ(b.console.str(), console);

        const std::vector<EbbModule> modules = WalkEbb(b);
        ASSERT_EQ(modules.size(), c.headers.size());
        EXPECT_EQ(load_le32(&b.ctx.image.ImageBuffer[0x37000 + 20]), 0x20u);
        for (std::size_t i = 0; i < modules.size(); ++i) {
            const std::size_t at = 0x37000 + c.headers[i];
            EXPECT_EQ(modules[i].header, c.headers[i]);
            EXPECT_EQ(modules[i].data_size, c.data_sizes[i]);
            EXPECT_EQ(b.ctx.description.EbbModuleList[i].EbbOffset, c.headers[i]);
            EXPECT_EQ(b.Image(at + 14, 6), (std::vector<std::uint8_t>{0x12, 0x80, 0x34, 0x12, 0x00, 0xF0}));
            EXPECT_EQ(b.Image(at + 20, b.files[i].size()), b.files[i]);
            EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, at + 20 + b.files[i].size(),
                                    at + 20 + c.data_sizes[i], 0xFF))
                << "padding is not written";
        }
        const std::size_t end = 0x37000 + c.headers.back() + 20 + c.data_sizes.back();
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, end, 0x38000, 0xFF));
    }
}

TEST(ExtendedBootBlock, MaxModuleSizeReservesErasedSpace) {
    EbbBuild b(0x1000);
    b.Add(0x40).MaxModuleSize = 0x101;
    b.Add(0x10);
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    const std::vector<EbbModule> modules = WalkEbb(b);
    ASSERT_EQ(modules.size(), 2u);
    EXPECT_EQ(modules[0].data_size, 0x104u);
    EXPECT_EQ(modules[1].header, 24u + 20 + 0x104);
    EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0x37000 + 44 + 0x40, 0x37000 + 44 + 0x104, 0xFF));
}

TEST(ExtendedBootBlock, AlreadyCompressedFileIsStoredAsItIs) {
    EbbBuild b(0x1000);
    b.Add(0x33, 0x12, 0).CompressionFlags = compression_flag::AlreadyCompressed;
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    const std::vector<EbbModule> modules = WalkEbb(b);
    ASSERT_EQ(modules.size(), 1u);
    EXPECT_EQ(modules[0].data_size, 0x34u);
    EXPECT_EQ(b.ctx.image.ImageBuffer[0x37000 + 24 + 15], 0x00) << "NotCompressed stays clear";
    EXPECT_EQ(b.Image(0x37000 + 44, 0x33), b.files[0]);
}

TEST(ExtendedBootBlock, LargeModuleHasDataSize16Saturated) {
    EbbBuild b(0x20000, 0x80000);
    b.Add(0x10000);
    b.Add(0xFF00);
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    const std::vector<EbbModule> modules = WalkEbb(b);
    ASSERT_EQ(modules.size(), 2u);
    EXPECT_EQ(modules[0].data_size, 0x10000u);
    EXPECT_EQ(modules[1].data_size, 0xFF00u);
}

TEST(ExtendedBootBlock, AlignmentPlacesTheDataNotTheHeader) {
    for (std::uint8_t alignment : {7, 0x40, 0xFF}) {
        SCOPED_TRACE(int(alignment));
        EbbBuild b(0x1000);
        b.Add(0x10);
        b.Add(0x20).Alignment = alignment;
        ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
        const std::vector<EbbModule> modules = WalkEbb(b);
        ASSERT_EQ(modules.size(), 2u);
        const std::size_t packed = 24 + 20 + 0x10;
        const std::size_t header = modules[1].header;
        EXPECT_EQ((0x37000 + header + 20) % alignment, 0u);
        EXPECT_GE(header, packed);
        EXPECT_LT(header, packed + alignment);
        EXPECT_EQ(modules[1].data_size, 0x20u) << "the size is not padded by the alignment";
        EXPECT_EQ(b.ctx.description.EbbModuleList[1].EbbOffset, header);
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0x37000 + packed, 0x37000 + header, 0xFF));
        EXPECT_EQ(b.Image(0x37000 + header + 20, 0x20), b.files[1]);
    }
}

TEST(ExtendedBootBlock, ModuleMayEndExactlyAtTheEndOfTheBlock) {
    for (std::size_t file_size : {std::size_t(0xD4), std::size_t(0xD5)}) {
        EbbBuild b(0x100);
        b.Add(file_size);
        const std::string result = b.Run(BuildExtendedBootBlock);
        if (file_size == 0xD4) {
            EXPECT_EQ(result, "");
            EXPECT_EQ(WalkEbb(b).size(), 1u);
        } else {
            EXPECT_EQ(result, "Out of EBB space!");
            EXPECT_EQ(b.console.str(), std::string(kProgress) + " Inserting " +
                                           b.ctx.description.EbbModuleList[0].FileName +
                                           " as module id 12\nFATAL ERROR: Out of EBB space!\n");
        }
    }
}

TEST(ExtendedBootBlock, FailuresReportTheirExactText) {
    struct Case {
        const char* name;
        std::uint32_t max_ebb_size;
        std::function<void(EbbBuild&)> setup;
        std::string console;  // after the progress line; "<0>" stands for module 0's file
    };
    const Case cases[] = {
        {"modules without a block", 0, [](auto& b) { b.Add(4); },
         "\nFATAL ERROR: Some module(s) intended for Extended BootBlock but the Extended "
         "BootBlock size is zero.\n"},
        {"below a header", 20, [](auto&) {},
         "\nFATAL ERROR: Extended Boot Block size is too small\n"},
        {"size 0x102", 0x102, [](auto&) {},
         "\nFATAL ERROR: Extended Boot Block size must be a multiple of 4\n"},
        {"larger than the image", 0x38004, [](auto&) {},
         "\nFATAL ERROR: Extended Boot Block does not fit in the ROM image: maxebbsize "
         "0x00038004 is larger than the 0x00038000 bytes left below the boot block (size "
         "0x00040000, bbsize 0x00008000)\n"},
        {"missing file",
         0x1000,
         [](auto& b) { b.Add(4).FileName = b.dir.File("gone.bin"); },
         "Fail to open file \"<0>\"\nFATAL ERROR: Cannot open boot block file\n"},
        {"module above MaxModuleSize", 0x1000, [](auto& b) { b.Add(0x41).MaxModuleSize = 0x40; },
         " Inserting <0> as module id 12\nFATAL ERROR: MaxModuleSize is too small for this module\n"},
        {"eleven modules", 0x1000,
         [](auto& b) {
             for (int i = 0; i < 11; ++i) b.Add(4);
         },
         "\nFATAL ERROR: Too many modules for the Extended Boot Block: 11, at most 10\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EbbBuild b(c.max_ebb_size);
        c.setup(b);
        std::string expected = (c.max_ebb_size == 0 ? "" : kProgress) + c.console;
        if (const auto at = expected.find("<0>"); at != std::string::npos) {
            expected.replace(at, 3, b.ctx.description.EbbModuleList[0].FileName);
        }
        const std::string result = b.Run(BuildExtendedBootBlock);
        EXPECT_EQ("\nFATAL ERROR: " + result + "\n",
                  expected.substr(expected.find("\nFATAL ERROR: ")));
        EXPECT_EQ(b.console.str(), expected);
        EXPECT_EQ(b.ctx.image.PlacementCursor, 0x38000u);
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, 0x40000, 0xFF));
    }
}

}  // namespace
}  // namespace fwforge
