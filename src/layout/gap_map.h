#pragma once
// The gap map of gap placement: the free ranges of the main BIOS area left between the
// ranges the build script reserves (ROM holes, non-critical blocks, modules with a start
// address), an index of them by size, and the room for the main BIOS header.

#include <cstdint>

#include "context/build_context.h"

namespace fwforge {

inline constexpr std::uint8_t kNoGap = 0xFF;

// Checks the reserved ranges against each other and against the top of the free area
// (the PlacementCursor), converts their start addresses to image offsets for good and
// lays out the gaps between them.
void BuildGapMap(BuildContext& ctx);

// Rebuilds GapSizeOrder: a stable order of the gaps by ascending Size.
void OrderGapsBySize(GapMap& gaps);

// Prints every gap (used-up ones too) and the total free space; the caller decides
// whether the map is printed at all.
void PrintGapMap(BuildContext& ctx);

// Takes the main BIOS header block from the top of the highest gap that holds it and
// sets the PlacementCursor to the top of that room. Returns 0, or 255 when no gap holds
// the block.
std::uint8_t FindMainHeaderRoom(BuildContext& ctx);

}  // namespace fwforge
