#pragma once
// Our own lh5 decoder: block header, code tables, tokens. It checks everything it
// reads and rejects a malformed or cut-off stream with an error text instead of
// reading or writing out of bounds.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fwforge::lzh {

// Decodes `original_size` bytes from an lh5 bit stream. On failure returns nullopt
// and, when `error` is given, says what was wrong and where.
std::optional<std::vector<std::uint8_t>> DecodeLh5(std::span<const std::uint8_t> stream,
                                                   std::size_t original_size,
                                                   std::string* error);

// Decodes compressed module data as CompressModule writes it: CompressedDataHeader,
// bit stream, closing 0x00. Bytes after the total size are ignored.
std::optional<std::vector<std::uint8_t>> DecodeCompressedData(std::span<const std::uint8_t> data,
                                                              std::string* error);

}  // namespace fwforge::lzh
