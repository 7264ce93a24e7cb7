#include "image/module_data.h"

#include "compress/lzh_decoder.h"
#include "format/compressed_data_header.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

// A forged original size must not make the inspector decode gigabytes: an lh5 block
// can describe megabytes in a few bytes. No firmware module comes near this.
constexpr std::uint32_t kLargestOriginal = 64u << 20;

}  // namespace

DecodeResult DecodeStoredData(std::span<const std::uint8_t> stored) {
    DecodeResult r;
    const CompressedFrame frame = ReadCompressedFrame(stored);
    r.total = frame.total;
    r.original = frame.original;
    switch (frame.fault) {
        case CompressedFrame::Fault::TooShort:
            r.status = DecodeStatus::BadHeader;
            r.message = StrFormat("%zx bytes are too few for compressed data", stored.size());
            return r;
        case CompressedFrame::Fault::BadTotal:
            r.status = DecodeStatus::BadHeader;
            r.message =
                StrFormat("total size %x does not fit the %zx stored bytes", r.total, stored.size());
            return r;
        case CompressedFrame::Fault::None:
            break;
    }
    if (r.original > kLargestOriginal) {
        r.status = DecodeStatus::Malformed;
        r.message = StrFormat("original size %x is beyond what is decoded here (%x)", r.original,
                              kLargestOriginal);
        return r;
    }
    // The encoder stops when its output would outgrow the input it has read; its total
    // is then exactly what it read + 9, and the stream ends wherever it was cut.
    const bool stopped_size = r.total == r.original + kCompressedOverhead;
    std::string error;
    auto bytes = lzh::DecodeLh5(frame.stream, r.original, &error);
    if (bytes) {
        r.status = DecodeStatus::Ok;
        r.bytes = std::move(*bytes);
        if (frame.closing != 0x00) {
            r.status = DecodeStatus::Malformed;
            r.message = StrFormat("the closing byte is %02x, not 00", frame.closing);
        }
        return r;
    }
    r.status = stopped_size ? DecodeStatus::CutOff : DecodeStatus::Malformed;
    r.message = error;
    return r;
}

ModuleSizes SizesOf(std::span<const std::uint8_t> image, const Module& m) {
    ModuleSizes s;
    s.stored = m.Linked() ? 0 : m.header.data_size;
    if (!m.Compressed() || m.pieces.empty()) return s;
    // The compressed-data header is at the start of the first piece.
    const Piece& first = m.pieces.front();
    if (first.length < compressed_data_header::kSize) return s;
    s.compressed = true;
    s.total = load_le32(image.data() + first.offset + compressed_data_header::TotalSize.offset);
    s.original =
        load_le32(image.data() + first.offset + compressed_data_header::OriginalSize.offset);
    return s;
}

}  // namespace fwforge::inspect
