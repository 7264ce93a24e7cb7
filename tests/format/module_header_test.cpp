// The typed readers of format/: a module header's fields come back as written, the
// 16-bit data size follows its one rule, and the compressed-data frame is told apart
// from data too short or with a total that does not fit.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "format/compressed_data_header.h"
#include "format/module_header.h"

namespace fwforge {
namespace {

TEST(ModuleHeaderFormat, FieldsComeBackAsWritten) {
    ModuleHeader h;
    h.data_size = 0x12345;
    h.checksum = 0xDEADBEEF;
    h.next_link = 0xF0001238;
    h.data_size16 = DataSize16For(h.data_size);
    h.id = 0x20;
    h.attributes = module_attr::LinkedRom;
    h.dest_offset = 0x8086;
    h.dest_segment = 0x1234;
    std::array<std::uint8_t, module_header::kSize> bytes{};
    WriteModuleHeader(bytes.data(), h);
    const ModuleHeader back = ReadModuleHeader(bytes.data());
    EXPECT_EQ(back.data_size, h.data_size);
    EXPECT_EQ(back.checksum, h.checksum);
    EXPECT_EQ(back.next_link, h.next_link);
    EXPECT_EQ(back.data_size16, kDataSize16TooLarge);
    EXPECT_EQ(back.id, h.id);
    EXPECT_EQ(back.attributes, h.attributes);
    EXPECT_EQ(back.dest_offset, h.dest_offset);
    EXPECT_EQ(back.dest_segment, h.dest_segment);
    EXPECT_EQ(bytes[module_header::ModuleId.offset], 0x20);
}

TEST(ModuleHeaderFormat, DataSize16IsTheSizeWhereItFits) {
    EXPECT_EQ(DataSize16For(0), 0);
    EXPECT_EQ(DataSize16For(0xFFFE), 0xFFFE);
    EXPECT_EQ(DataSize16For(0xFFFF), 0xFFFF);
    EXPECT_EQ(DataSize16For(0x10000), kDataSize16TooLarge);
}

TEST(CompressedFrameFormat, TellsShortDataAndBadTotals) {
    std::vector<std::uint8_t> data(8, 0);
    EXPECT_EQ(ReadCompressedFrame(data).fault, CompressedFrame::Fault::TooShort);
    data = {12, 0, 0, 0, 5, 0, 0, 0, 0xAA, 0xBB, 0xCC, 0x00, 0xFF};
    CompressedFrame frame = ReadCompressedFrame(data);
    EXPECT_EQ(frame.fault, CompressedFrame::Fault::None);
    EXPECT_EQ(frame.total, 12u);
    EXPECT_EQ(frame.original, 5u);
    EXPECT_EQ(frame.stream.size(), 3u);
    EXPECT_EQ(frame.closing, 0x00);
    data[0] = 14;
    frame = ReadCompressedFrame(data);
    EXPECT_EQ(frame.fault, CompressedFrame::Fault::BadTotal);
    EXPECT_EQ(frame.total, 14u);
    data[0] = 8;
    EXPECT_EQ(ReadCompressedFrame(data).fault, CompressedFrame::Fault::BadTotal);
}

}  // namespace
}  // namespace fwforge
