#pragma once
// The stored data of a compressed module: a CompressedDataHeader (total size, original
// size), the lh5 bit stream and a closing 0x00. Decoding goes through the project's
// own lh5 decoder.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::inspect {

enum class DecodeStatus {
    Ok,
    BadHeader,    // the total size does not fit the stored data
    CutOff,       // the encoder's output bound stopped the stream; it cannot be decoded
    Malformed,    // the stream does not decode to the original size
};

struct DecodeResult {
    DecodeStatus status = DecodeStatus::Malformed;
    std::uint32_t total = 0;
    std::uint32_t original = 0;
    std::vector<std::uint8_t> bytes;  // the original bytes when Ok
    std::string message;              // what went wrong, for reports
};

// Reads the CompressedDataHeader of `stored` and decodes the stream behind it. A stream
// whose total is its original size + 9 is what a stopped encoder leaves; when such a
// stream does not decode it is reported as cut off.
DecodeResult DecodeStoredData(std::span<const std::uint8_t> stored);

// What a module stores: DataSize, and for a compressed module the totals of its
// compressed-data header.
struct ModuleSizes {
    bool compressed = false;
    std::uint32_t stored = 0;    // DataSize
    std::uint32_t total = 0;     // compressed total (header, stream, 0x00)
    std::uint32_t original = 0;  // from the compressed-data header
};
ModuleSizes SizesOf(std::span<const std::uint8_t> image, const Module& m);

}  // namespace fwforge::inspect
