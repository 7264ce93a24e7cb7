#pragma once
// A file that does not compress leaves, as its stored data, the encoder's stream cut off
// at the output bound (original size + 9 bytes): what lies past the cut, and with it
// the end of the file, is lost. A stand-in is data of the same length that the encoder
// cuts off at the very same bytes, so that a build given it stores those bytes again
// and gives them the room it gives data it compressed.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace fwforge::lzh {

// A stand-in for the cut-off compressed data `stored` (header, stream up to the cut),
// found when the file's lost end is literals only (as in data that does not compress).
// Checked with a fresh encoder: its first `total` bytes equal those of `stored`.
std::optional<std::vector<std::uint8_t>> CutOffStandIn(std::span<const std::uint8_t> stored);

}  // namespace fwforge::lzh
