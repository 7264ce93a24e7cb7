// The rules of format/ that no image of the cases meets at their bounds: the 16-bit data
// size of a module of 64 KB, and compressed data too short or with a total that does not
// fit. (The header fields' places are pinned by layout/hand_derived.case.)

#include <gtest/gtest.h>

#include <vector>

#include "format/compressed_data_header.h"
#include "format/module_header.h"

namespace fwforge {
namespace {

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
