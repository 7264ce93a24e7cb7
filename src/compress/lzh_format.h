#pragma once
// The fixed parameters of the lh5 bit stream and the layout of compressed module data.
// Firmware in the field unpacks these streams with a decoder built for exactly these
// values, so none of them is a tuning knob.

#include <cstddef>
#include <cstdint>

#include "format/compressed_data_header.h"

namespace fwforge::lzh {

// Sliding window: 13 bits, so a match reaches back at most 8191 bytes and a distance
// code (distance - 1) fits in 13 bits.
inline constexpr unsigned kWindowBits = 13;
inline constexpr unsigned kWindowSize = 1u << kWindowBits;  // 8192
inline constexpr unsigned kMaxMatch = 256;
inline constexpr unsigned kMinMatch = 3;  // shorter matches are sent as literals

// Literal/length symbols: 0-255 are bytes, 256-509 are lengths 3-256.
inline constexpr unsigned kNumLitLen = 256 + kMaxMatch - kMinMatch + 1;  // 510
inline constexpr unsigned kLengthSymbolBias = 256 - kMinMatch;           // symbol = length + 253
// Distance symbols are the bit lengths 0-13 of the distance code.
inline constexpr unsigned kNumDistBits = kWindowBits + 1;  // 14
// The code that sends the literal/length code lengths.
inline constexpr unsigned kNumCodeLen = 19;
inline constexpr unsigned kMaxCodeBits = 16;

// Widths of the count fields at the head of a block.
inline constexpr int kTokenCountBits = 16;
inline constexpr int kLitLenCountBits = 9;
inline constexpr int kCodeLenCountBits = 5;
inline constexpr int kDistCountBits = 4;

// Code-length symbols 0-2 describe runs of zero lengths; symbol k + 2 is length k.
inline constexpr unsigned kZeroRunSymbols = 3;
// The code-length code's own lengths carry a 2-bit skip count after the third length.
inline constexpr unsigned kCodeLenSkipAfter = 3;

// Compressed module data: the header of format/compressed_data_header.h, the bit
// stream, a closing 0x00.

}  // namespace fwforge::lzh
