#include "bootblock/extended_boot_block.h"

#include <gtest/gtest.h>

#include "format/block_header.h"
#include "bootblock/region_fixture.h"
#include "compress/lzh_decoder.h"
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
        record.FileName =
            dir.File("ebb" + std::to_string(ctx.description.EbbModuleList.size()) + ".bin");
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

struct ModuleSpec {
    std::size_t file_size;
    std::uint32_t max_module_size = 0;
    std::uint8_t alignment = 0;
    std::uint8_t compression_flags = 0;
    std::uint8_t attributes = module_attr::NotCompressed;
};

// Modules stored as their files are: where each lands and how much it takes.
TEST(ExtendedBootBlock, ModulesArePackedUpwardsAndChained) {
    struct Case {
        const char* name;
        std::uint32_t ebb_size;
        std::vector<ModuleSpec> modules;
        std::vector<std::size_t> headers;       // EBB offsets
        std::vector<std::uint32_t> data_sizes;  // rounded up to 4
    };
    const std::uint8_t kStoredAsIs = 0;  // NotCompressed clear, file already compressed
    const Case cases[] = {
        {"bare header", 0x1000, {}, {}, {}},
        {"one module", 0x1000, {{100}}, {24}, {100}},
        {"two modules, padding", 0x1000, {{0x40}, {0x23}}, {24, 24 + 0x40 + 20}, {0x40, 0x24}},
        {"empty file", 0x1000, {{0}, {5}, {0x200}}, {24, 44, 44 + 8 + 20}, {0, 8, 0x200}},
        {"MaxModuleSize reserves erased space",
         0x1000,
         {{0x40, 0x101}, {0x10}},
         {24, 24 + 20 + 0x104},
         {0x104, 0x10}},
        {"already compressed",
         0x1000,
         {{0x33, 0, 0, compression_flag::AlreadyCompressed, kStoredAsIs}},
         {24},
         {0x34}},
        {"exactly full", 0x100, {{0xD4}}, {24}, {0xD4}},
        {"DataSize16 saturates",
         0x20000,
         {{0x10000}, {0xFF00}},
         {24, 24 + 20 + 0x10000},
         {0x10000, 0xFF00}},
        // Alignment puts the data, not the header, on a multiple in the image.
        {"alignment 7", 0x1000, {{0x10}, {0x20, 0, 7}}, {24, 0x41}, {0x10, 0x20}},
        {"alignment 0x40", 0x1000, {{0x10}, {0x20, 0, 0x40}}, {24, 0x6C}, {0x10, 0x20}},
        {"alignment 0xFF",
         0x1000,
         {{0x10}, {0x20, 0, 0xFF}, {4}},
         {24, 0x78, 0x78 + 0x34},
         {0x10, 0x20, 4}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EbbBuild b(c.ebb_size, 0x3F000 + c.ebb_size);  // the EBB starts at 0x37000
        for (const ModuleSpec& m : c.modules) {
            EbbModuleRecord& r = b.Add(m.file_size, 0x12, m.attributes);
            r.MaxModuleSize = m.max_module_size;
            r.Alignment = m.alignment;
            r.CompressionFlags = m.compression_flags;
        }
        ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
        const std::size_t start = b.Start();
        EXPECT_EQ(b.ctx.image.PlacementCursor, start);

        std::string console = kProgress;
        for (std::size_t i = 0; i < c.headers.size(); ++i)
            console += b.InsertLine(i, start + c.headers[i]);
        EXPECT_EQ(b.console.str(), console);

        const std::vector<EbbModule> modules = WalkEbb(b);
        ASSERT_EQ(modules.size(), c.headers.size());
        EXPECT_EQ(load_le32(&b.ctx.image.ImageBuffer[start + 20]),
                  c.headers.empty() ? 0xFFFFFFFF : 0x20u);
        std::size_t erased_from = start + 24;  // bytes no module covers stay 0xFF
        for (std::size_t i = 0; i < modules.size(); ++i) {
            const std::size_t at = start + c.headers[i];
            EXPECT_EQ(modules[i].header, c.headers[i]);
            EXPECT_EQ(modules[i].data_size, c.data_sizes[i]);
            EXPECT_EQ(b.ctx.description.EbbModuleList[i].EbbOffset, c.headers[i]);
            EXPECT_EQ(b.Image(at + 14, 6), (std::vector<std::uint8_t>{0x12, c.modules[i].attributes,
                                                                     0x34, 0x12, 0x00, 0xF0}));
            EXPECT_EQ(b.Image(at + 20, b.files[i].size()), b.files[i]);
            EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, erased_from, at, 0xFF));
            erased_from = at + 20 + b.files[i].size();
            if (c.modules[i].alignment != 0) {
                EXPECT_EQ((at + 20) % c.modules[i].alignment, 0u);
            }
        }
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, erased_from, start + c.ebb_size, 0xFF));
        EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, 0, start, 0xFF));
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
        {"missing file", 0x1000, [](auto& b) { b.Add(4).FileName = b.dir.File("gone.bin"); },
         "Fail to open file \"<0>\"\nFATAL ERROR: Cannot open boot block file\n"},
        {"module above MaxModuleSize", 0x1000, [](auto& b) { b.Add(0x41).MaxModuleSize = 0x40; },
         " Inserting <0> as module id 12\nFATAL ERROR: MaxModuleSize is too small for this "
         "module\n"},
        {"one byte more than fits", 0x100, [](auto& b) { b.Add(0xD5); },
         " Inserting <0> as module id 12\nFATAL ERROR: Out of EBB space!\n"},
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

// A module's data as compressed by the build's encoder: it must decode to its file.
TEST(ExtendedBootBlock, CompressedModulesDecodeToTheirFiles) {
    EbbBuild b(0x4000);
    b.ctx.options.VerboseMode = true;
    std::vector<std::uint8_t> text;
    for (int i = 0; text.size() < 3000; ++i) {
        const std::string line = StrFormat("Line %d of the module text, repeated.\n", i % 17);
        text.insert(text.end(), line.begin(), line.end());
    }
    b.Add(0, 0x80, 0);
    testing::WriteBytes(b.ctx.description.EbbModuleList[0].FileName, b.files[0] = text);
    b.Add(0, 0x21, 0).MaxModuleSize = 0x1000;
    testing::WriteBytes(b.ctx.description.EbbModuleList[1].FileName, b.files[1] = text);
    b.Add(1000, 0x22, 0);  // random bytes: the run stops at the end, total is size + 9
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");

    const std::vector<EbbModule> modules = WalkEbb(b);
    ASSERT_EQ(modules.size(), 3u);
    const std::size_t start = b.Start();
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const std::size_t data = start + modules[i].header + 20;
        EXPECT_EQ(b.ctx.image.ImageBuffer[data - 5], 0x00) << "NotCompressed stays clear";
        const std::uint32_t total = load_le32(&b.ctx.image.ImageBuffer[data]);
        EXPECT_LT(total, text.size());
        std::string error;
        const auto decoded = lzh::DecodeCompressedData(b.Image(data, total), &error);
        ASSERT_TRUE(decoded) << error;
        EXPECT_EQ(*decoded, text);
        if (i == 0) {
            EXPECT_EQ(modules[i].data_size, (total + 3) & ~3u);
        } else {
            // MaxModuleSize: the file's own bytes stay behind the compressed data.
            EXPECT_EQ(modules[i].data_size, 0x1000u);
            EXPECT_EQ(b.Image(data + total, text.size() - total),
                      std::vector<std::uint8_t>(text.begin() + total, text.end()));
            EXPECT_TRUE(
                AllBytesAre(b.ctx.image.ImageBuffer, data + text.size(), data + 0x1000, 0xFF));
        }
    }
    EXPECT_EQ(modules[2].data_size, (1000u + 9 + 3) & ~3u);
    EXPECT_EQ(load_le32(&b.ctx.image.ImageBuffer[start + modules[2].header + 20]), 1009u);
    // Only module 0x80 says in verbose mode that it was compressed.
    EXPECT_EQ(b.console.str(),
              std::string(kProgress) + " Inserting " + b.ctx.description.EbbModuleList[0].FileName +
                  " as module id 80 (compressed)" + StrFormat(" at %zx\n", start + 24) +
                  b.InsertLine(1, start + modules[1].header) +
                  b.InsertLine(2, start + modules[2].header));
}

// When the encoder stops before it has consumed the whole input its stream is cut off;
// the module is then stored as its file is, marked NotCompressed.
TEST(ExtendedBootBlock, StoppedCompressionStoresTheFile) {
    EbbBuild b(0x31000);
    b.Add(200000, 0x23, 0).MaxModuleSize = 0x30F00;  // random: stops after 131328 bytes
    ASSERT_EQ(b.Run(BuildExtendedBootBlock), "");
    const std::vector<EbbModule> modules = WalkEbb(b);
    ASSERT_EQ(modules.size(), 1u);
    const std::size_t data = b.Start() + 24 + 20;
    EXPECT_EQ(b.ctx.image.ImageBuffer[data - 5], module_attr::NotCompressed);
    EXPECT_EQ(b.ctx.description.EbbModuleList[0].Header.ModuleAttributes(),
              module_attr::NotCompressed);
    EXPECT_EQ(modules[0].data_size, 0x30F00u);
    EXPECT_EQ(b.Image(data, 200000), b.files[0]);
    EXPECT_TRUE(AllBytesAre(b.ctx.image.ImageBuffer, data + 200000, data + 0x30F00, 0xFF));
}

}  // namespace
}  // namespace fwforge
