#pragma once
// Module splitting: a module that no gap holds whole is written in pieces, lowest gap
// first. Every piece but the last has a header of its own (SplitPiece, its own length,
// no checksum); the last piece carries the module's full header, whose checksum covers
// the data of all pieces.

#include <cstdint>
#include <span>

#include "context/build_context.h"

namespace fwforge {

// Takes room from the bottom of the first gap in address order whose Size is at least
// `minimum`: `wanted` bytes, or the whole gap when it holds no more. Points the
// PlacementCursor at the room and returns its length, or 0 when no gap holds `minimum`.
// The size order of the gaps is left as it was.
std::uint32_t TakeSplitRoom(BuildContext& ctx, std::uint32_t minimum, std::uint32_t wanted);

// Adds the doublewords of `length` bytes of `data` from `offset` to SplitDataSum.
void AddToSplitSum(BuildContext& ctx, std::span<const std::uint8_t> data, std::size_t offset,
                   std::size_t length);

// Writes module `index` in pieces across the gaps, its linked add-on ROMs' headers
// below the first piece and after the last one in the chain.
void SplitModule(BuildContext& ctx, std::uint32_t index);

}  // namespace fwforge
