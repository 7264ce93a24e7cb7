#pragma once
// Construction of the static Huffman codes that every lh5 block sends at its head.
// The exact tie-breaking of the heap and the order in which lengths are handed out
// decide the code lengths, and with them every byte of the stream, so this follows
// one fixed procedure rather than any optimal-code construction.

#include <cstdint>
#include <span>

#include "compress/lzh_format.h"

namespace fwforge::lzh {

// The largest alphabet a code is built for.
inline constexpr unsigned kMaxAlphabet = kNumLitLen;

// Builds the code for an alphabet of `lengths.size()` symbols (at most kMaxAlphabet)
// from `counts`, which must have room for 2n - 1 entries: entries n and up receive the
// counts of the tree's inner nodes. Fills `lengths` (0 = unused symbol; every length is
// at most 16) and `codes` (canonical). Returns the root: a value below n means that the
// code has a single symbol (symbol 0 when no count is set), whose length stays 0 and
// whose code is 0.
unsigned BuildHuffmanCode(std::span<std::uint32_t> counts, std::span<std::uint8_t> lengths,
                          std::span<std::uint16_t> codes);

}  // namespace fwforge::lzh
