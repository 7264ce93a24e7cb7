#pragma once
// The selection and reservation steps of the gap placement passes: which module comes
// next, and the room a module gets when a gap holds it whole (best fit).

#include <cstdint>

#include "context/build_context.h"

namespace fwforge {

inline constexpr std::uint32_t kNoModule = 255;

// The unplaced module of the main BIOS with the largest PlacedSize whose Contiguous
// equals `contiguous` (the lowest index among equals), or kNoModule.
std::uint32_t SelectLargestUnplaced(const BuildContext& ctx, std::uint8_t contiguous);

// Reserves the bottom of the smallest gap that holds module `index` whole and points the
// PlacementCursor at it, moved up so that the data after the header is aligned. Returns 0,
// or 1 when no gap holds the module (which is then marked NoWholeFit).
std::uint8_t ReserveWholeRoom(BuildContext& ctx, std::uint32_t index);

// The lowest-index module of the main BIOS that is not placed yet, marked Placed, or
// kNoModule.
std::uint32_t TakeNextUnplaced(BuildContext& ctx);

}  // namespace fwforge
