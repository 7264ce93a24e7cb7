#include "script/boot_block_stamp.h"

#include "platform/byte_order.h"

namespace fwforge::script {
namespace {

// The boot block segment whose data carries the stamp, and where in it the stamp lies.
constexpr std::uint32_t kStampSegmentAddress = 0x000F0000;
constexpr std::uint64_t kStampOffsetInSegment = 0xF408;

}  // namespace

StampSearch FindBootBlockStamp(std::span<const std::uint8_t> data) {
    // The file starts with a segment table: entry count - 1 (byte 0), the offset of the
    // segment data (bytes 2-3), then per segment its address and a length word whose
    // bit 31 says the data is stored in the file.
    auto fits = [&](std::uint64_t offset, std::uint64_t width) {
        return offset <= data.size() && width <= data.size() - offset;
    };
    if (!fits(0, 4)) return {StampSearch::Unreadable};
    const unsigned last_entry = data[0];
    std::uint64_t data_offset = load_le16(&data[2]);
    for (unsigned i = 0; i <= last_entry; ++i) {
        const std::uint64_t entry = 4 + 8 * std::uint64_t{i};
        if (!fits(entry, 8)) return {StampSearch::Unreadable};
        const std::uint32_t address = load_le32(&data[entry]);
        const std::uint32_t length = load_le32(&data[entry + 4]);
        if (address == kStampSegmentAddress) {
            const std::uint64_t stamp = data_offset + kStampOffsetInSegment;
            if (!fits(stamp, 4)) return {StampSearch::Unreadable};
            return {StampSearch::Found, load_le32(&data[stamp])};
        }
        if (length & 0x80000000u) data_offset += length & 0x7FFFFFFFu;
    }
    return {StampSearch::NotFound};
}

}  // namespace fwforge::script
