#include "imageinfo/image_info.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "support/test_files.h"

namespace fwforge {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The description of a build with the default boot-block offsets, a 64 KB boot area
// and a 16 KB NVRAM area.
BuildDescription Described() {
    BuildDescription d;
    d.Bios.BiosTag = "ABC1";
    d.Bios.BootBlockSize = 0x8000;
    d.Bios.MaxEbbSize = 0x8000;
    d.Bios.NvramSize = 0x4000;
    d.RomImage.RomImageVersion = 0x21;
    d.RomImage.RomImageFlags = 0x03;
    return d;
}

const Bytes kFixedRecords = {
    0x09, 0x00, 0x60, 0x04, 0x01, '3', '.', '3', '3',                          // at 0
    0x10, 0x00, 0x10, 0x02, 0x01, 0x21, 0x03,                                  // at 9
    0x1D, 0x00, 0x20, 0x08, 0x01, 0xE0, 0xFF, 0, 0, 0x00, 0xE0, 0, 0,          // at 16
    0xFF, 0xFF, 0x30, 0x08, 0x01, 0x00, 0x00, 0x01, 0, 0x00, 0x40, 0, 0,       // at 29
};

// The fixed records, the last one linked to the records that follow it.
Bytes FixedThen(const Bytes& records) {
    Bytes data = kFixedRecords;
    data[29] = 42;
    data[30] = 0;
    data.insert(data.end(), records.begin(), records.end());
    return data;
}

void AddModule(BuildDescription& d, std::uint8_t insertion, std::uint8_t alignment,
               std::uint32_t start, std::uint8_t rom_hole) {
    ModuleEntry& m = d.ModuleTable[d.ModuleCount++];
    m.InsertionIndex = insertion;
    m.Alignment = alignment;
    m.StartAddress = start;
    m.RomHoleIndex = rom_hole;
}

void AddHole(BuildDescription& d, std::string file, std::string name, std::uint8_t filler,
             std::uint32_t start, std::uint32_t size, std::uint8_t owner = kNoIndex) {
    RomHoleEntry& h = d.RomHoleTable[d.RomHoleCount++];
    h.FileName = std::move(file);
    h.Name = std::move(name);
    h.Filler = filler;
    h.StartAddress = start;
    h.Size = size;
    h.OwnerModule = owner;
}

TEST(ImageInformation, DataRecordsFollowTheDescription) {
    struct Case {
        const char* name;
        void (*describe)(BuildDescription&);
        Bytes expected;
    };
    const Case cases[] = {
        {"fixed records only", [](BuildDescription&) {}, kFixedRecords},
        {"modules with alignment and start address",
         [](BuildDescription& d) {
             AddModule(d, 0, 0, kNoStartAddress, kNoIndex);
             AddModule(d, 3, 0x10, kNoStartAddress, kNoIndex);
             AddModule(d, 1, 0, 0x000FF020, 0);
             AddHole(d, "", "", 0x00, 0x000FF000, 0x40, 2);  // its reservation: no 0x50 item
             d.FixedModuleCount = 1;
             d.ConstrainedModuleCount = 3;  // an alignment key given twice counts twice
         },
         FixedThen({0xFF, 0xFF, 0x40, 0x06, 0x03,
                    0x03, 0x10, 0xFF, 0xFF, 0xFF, 0xFF,
                    0x01, 0x00, 0x20, 0xF0, 0x0F, 0x00,
                    0, 0, 0, 0, 0, 0})},
        {"ROM hole with a file and a non-critical block",
         [](BuildDescription& d) {
             AddHole(d, "hole.bin", "", 0x5A, 0x10000, 0x100);
             AddHole(d, "", "NCB1", 0xFF, 0x20000, 0x2000);
         },
         FixedThen({0xFF, 0xFF, 0x50, 0x0A, 0x02,
                    0x01, 0x5A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00,
                    0x02, 0xFF, 0x00, 0x00, 0x02, 0x00, 0x00, 0x20, 0x00, 0x00})},
        {"both, with a filler hole",
         [](BuildDescription& d) {
             AddModule(d, 7, 0x20, kNoStartAddress, kNoIndex);
             d.ConstrainedModuleCount = 1;
             AddHole(d, "", "", 0x00, 0x30, 0x10);
         },
         FixedThen({0x35, 0x00, 0x40, 0x06, 0x01, 0x07, 0x20, 0xFF, 0xFF, 0xFF, 0xFF,
                    0xFF, 0xFF, 0x50, 0x0A, 0x01,
                    0x00, 0x00, 0x30, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        BuildDescription d = Described();
        c.describe(d);
        EXPECT_EQ(ImageInformationData(d), c.expected);
    }
}

struct InfoBuild {
    InfoBuild() : ctx(console) {
        ctx.description = Described();
        ctx.options.OutputPath = dir.File("out");
        std::filesystem::create_directory(ctx.options.OutputPath);
    }
    std::string Run() {
        try {
            BuildImageInfoModule(ctx);
        } catch (const FatalError& e) {
            return e.what();
        }
        return "";
    }
    std::ostringstream console;
    BuildContext ctx;
    testing::TempDir dir;
};

constexpr char kProgress[] = "\nGenerating Image Information Module ...\n";

TEST(ImageInformation, ModuleWritesTheFileAndTakesAFreshRecord) {
    InfoBuild b;
    BuildDescription& d = b.ctx.description;
    // An aligned module whose count of keys has wrapped to 0 (256 alignment keys): no
    // 0x40 record, as for a build without any.
    AddModule(d, 0, 0x10, kNoStartAddress, kNoIndex);
    // The slot after the last module still holds a section diverted to the EBB.
    ModuleEntry& slot = d.ModuleTable[1];
    slot.RomRegion = "EBB";
    slot.MaxModuleSize = 0x100;
    slot.Alignment = 0x10;
    slot.Header.SetModuleAttributes(module_attr::NotCompressed);
    slot.CompressionFlags = compression_flag::AlreadyCompressed;
    // The name is the output folder, the separator, the tag and ".inf"; a folder that
    // already ends in a separator gets no second one.
    b.ctx.options.OutputPath += "/";

    ASSERT_EQ(b.Run(), "");
    EXPECT_EQ(b.console.str(), kProgress);
    const std::string name = b.dir.File("out") + "/ABC1.inf";
    EXPECT_EQ(testing::ReadBytes(name), kFixedRecords);
    EXPECT_EQ(d.ModuleCount, 1u);

    const ModuleEntry& m = d.ModuleTable[1];
    EXPECT_EQ(m.FileName, name);
    EXPECT_EQ(m.Header.ModuleId(), 0x80);
    EXPECT_EQ(m.Header.ModuleAttributes(), 0);
    EXPECT_EQ(m.CompressionFlags, compression_flag::MinSize);
    EXPECT_EQ(m.RomHoleIndex, kNoIndex);
    EXPECT_EQ(m.RomRegion, "");
    EXPECT_EQ(m.MaxModuleSize, 0u);
    EXPECT_EQ(m.Alignment, 0);
    EXPECT_EQ(m.Contiguous, 0);
    EXPECT_EQ(m.StartAddress, kNoStartAddress);
    EXPECT_EQ(m.Header.bytes[0], 0);
}

TEST(ImageInformation, FailuresReportTheirExactText) {
    struct Case {
        const char* name;
        void (*setup)(InfoBuild&);
        const char* message;
    };
    const Case cases[] = {
        {"no output folder",
         [](InfoBuild& b) { b.ctx.options.OutputPath = b.dir.File("absent"); },
         "Cannot create image information file"},
        {"file cannot be written",
         [](InfoBuild& b) {
             std::filesystem::create_symlink("/dev/full", b.dir.File("out/ABC1.inf"));
         },
         "Cannot write to image information file"},
        {"no free module record",
         [](InfoBuild& b) { b.ctx.description.ModuleCount = kModuleTableSize; },
         "No module record left for the image information module: ModuleCount 255, module "
         "table of 255 records"},
        {"more constrained modules than counted",
         [](InfoBuild& b) {
             AddModule(b.ctx.description, 0, 8, kNoStartAddress, kNoIndex);
             AddModule(b.ctx.description, 1, 8, kNoStartAddress, kNoIndex);
             b.ctx.description.ConstrainedModuleCount = 1;
         },
         "Image information: 2 modules with an alignment or start address, but only 1 counted"},
        {"more ROM holes than counted",
         [](InfoBuild& b) {
             AddHole(b.ctx.description, "", "", 0, 0, 16);
             AddHole(b.ctx.description, "", "", 0, 16, 16);
             b.ctx.description.FixedModuleCount = 1;
         },
         "Image information: 2 ROMHOLE/NCB records do not match RomHoleCount 2 and "
         "FixedModuleCount 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        InfoBuild b;
        c.setup(b);
        EXPECT_EQ(b.Run(), c.message);
        EXPECT_EQ(b.console.str(), std::string(kProgress) + "\nFATAL ERROR: " + c.message + "\n");
    }
}

}  // namespace
}  // namespace fwforge
