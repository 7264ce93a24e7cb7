#include "script/ebb_module_list.h"

#include <gtest/gtest.h>

namespace fwforge {
namespace {

ModuleEntry Record(const std::string& region) {
    ModuleEntry m;
    m.FileName = "ebb.bin";
    m.RomRegion = region;
    m.MaxModuleSize = 0x2000;
    m.Alignment = 0x10;
    m.CompressionFlags = 0x03;
    m.Contiguous = 1;
    m.StartAddress = 0x000F0000;
    m.LinkVendorId = 0x1234;
    m.Header.SetModuleId(0x41);
    m.Header.SetModuleAttributes(0x80);
    m.Header.SetDestOffset(0x8000);
    m.Header.SetDestSegment(0xF000);
    m.Header.SetDataSize(0x55);
    return m;
}

TEST(AddEbbModule, CopiesWhatTheEbbUses) {
    BuildDescription d;
    ASSERT_EQ(AddEbbModule(d, Record("EBB")), EbbOffer::Taken);
    ASSERT_EQ(d.EbbModuleList.size(), 1u);
    const EbbModuleRecord& e = d.EbbModuleList[0];
    EXPECT_EQ(e.FileName, "ebb.bin");
    EXPECT_EQ(e.MaxModuleSize, 0x2000u);
    EXPECT_EQ(e.Alignment, 0x10);
    EXPECT_EQ(e.CompressionFlags, 0x03);
    EXPECT_EQ(e.EbbOffset, 0u);
    // Only the id, attributes and the two 16-bit fields of the header image travel.
    const std::array<std::uint8_t, 20> header = {0, 0, 0, 0, 0,    0,    0,    0,    0,    0,
                                                 0, 0, 0, 0, 0x41, 0x80, 0x00, 0x80, 0x00, 0xF0};
    EXPECT_EQ(e.Header.bytes, header);
}

// Only the region "EBB", exactly, goes to the list, which refuses the eleventh module
// without growing.
TEST(AddEbbModule, TakesTheRegionEbbUpToTen) {
    BuildDescription d;
    for (const char* region : {"", "EBB2", "EB", "ebb", "NCB", "EBB "}) {
        EXPECT_EQ(AddEbbModule(d, Record(region)), EbbOffer::NotTaken) << region;
    }
    EXPECT_TRUE(d.EbbModuleList.empty());
    for (std::size_t i = 0; i < kMaxEbbModules; ++i) {
        ASSERT_EQ(AddEbbModule(d, Record("EBB")), EbbOffer::Taken);
    }
    EXPECT_EQ(AddEbbModule(d, Record("EBB")), EbbOffer::ListFull);
    EXPECT_EQ(d.EbbModuleList.size(), kMaxEbbModules);
    EXPECT_EQ(AddEbbModule(d, Record("SETUP")), EbbOffer::NotTaken);
}

}  // namespace
}  // namespace fwforge
