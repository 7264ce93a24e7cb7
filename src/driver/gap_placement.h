#pragma once
// Gap placement: the main BIOS laid out around the ranges that the build script reserves
// (ROM holes, non-critical blocks, modules with a start address). The ranges themselves
// are loaded later, once the main BIOS header is finished (layout/rom_holes.h).

#include "context/build_context.h"

namespace fwforge {

// Lays out the main BIOS into the gaps between the reserved ranges, from sizing every
// module to finishing the main BIOS header. The order of the passes is the priority of
// placement: fixed locations, modules that must not be split (largest first), modules
// that fit whole (largest first), the rest split, the image information module last.
void RunGapPlacement(BuildContext& ctx);

}  // namespace fwforge
