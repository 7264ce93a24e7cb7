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

// One decoded token: a literal byte, or a match of `length` bytes `distance` back.
struct Lh5Token {
    std::uint16_t length = 0;  // 0 for a literal
    std::uint16_t distance = 0;
    std::uint8_t literal = 0;
    bool operator==(const Lh5Token&) const = default;
};

// What a stream holds besides its bytes: its blocks and their tokens, for looking
// inside modules and for checking the encoder's choices.
struct Lh5Trace {
    std::vector<std::uint32_t> block_token_counts;
    std::vector<Lh5Token> tokens;
    // The literal/length code lengths of the last block whose tables were read whole
    // (empty before; all zero for a single-symbol code).
    std::vector<std::uint8_t> lit_len_lengths;
};

// Decodes `original_size` bytes from an lh5 bit stream. On failure returns nullopt
// and, when `error` is given, says what was wrong and where. The stream must end
// exactly with its last token (padded with zero bits to a whole byte).
std::optional<std::vector<std::uint8_t>> DecodeLh5(std::span<const std::uint8_t> stream,
                                                   std::size_t original_size, std::string* error,
                                                   Lh5Trace* trace = nullptr);

// Decodes compressed module data as CompressModule writes it: CompressedDataHeader,
// bit stream, closing 0x00. Bytes after the total size are ignored.
std::optional<std::vector<std::uint8_t>> DecodeCompressedData(std::span<const std::uint8_t> data,
                                                              std::string* error,
                                                              Lh5Trace* trace = nullptr);

}  // namespace fwforge::lzh
