#pragma once
// Compressed module data, as the firmware unpacks it: this 8-byte header, the lh5 bit
// stream and a closing 0x00. The encoder writes the frame; the decoder and the image
// reader read it with ReadCompressedFrame.

#include <cstddef>
#include <cstdint>
#include <span>

#include "format/field.h"
#include "platform/byte_order.h"

namespace fwforge {

namespace compressed_data_header {
inline constexpr std::size_t kSize = 8;
inline constexpr HeaderField TotalSize{0, 4};     // header + bit stream + closing byte
inline constexpr HeaderField OriginalSize{4, 4};  // input bytes the encoder consumed
static_assert(OriginalSize.end() == kSize);
}  // namespace compressed_data_header

// The header plus the closing byte: what a run adds around its bit stream.
inline constexpr std::uint32_t kCompressedOverhead = compressed_data_header::kSize + 1;

// Compressed data as it is read back: the header's two sizes and the bit stream they
// frame. The data may run on after `total` bytes (a module's room, say).
struct CompressedFrame {
    enum class Fault {
        None,
        TooShort,  // fewer bytes than a header and a closing byte; no size was read
        BadTotal,  // the total size is below kCompressedOverhead or beyond the data
    };
    Fault fault = Fault::None;
    std::uint32_t total = 0;
    std::uint32_t original = 0;
    std::span<const std::uint8_t> stream;  // the bit stream, when there is no fault
    std::uint8_t closing = 0;              // the byte after it, 0x00 as written
};

inline CompressedFrame ReadCompressedFrame(std::span<const std::uint8_t> data) {
    namespace header = compressed_data_header;
    CompressedFrame frame;
    if (data.size() < kCompressedOverhead) {
        frame.fault = CompressedFrame::Fault::TooShort;
        return frame;
    }
    frame.total = load_le32(data.data() + header::TotalSize.offset);
    frame.original = load_le32(data.data() + header::OriginalSize.offset);
    if (frame.total < kCompressedOverhead || frame.total > data.size()) {
        frame.fault = CompressedFrame::Fault::BadTotal;
        return frame;
    }
    frame.stream = data.subspan(header::kSize, frame.total - kCompressedOverhead);
    frame.closing = data[frame.total - 1];
    return frame;
}

}  // namespace fwforge
