#pragma once
// Gap placement: the main BIOS laid out around the ranges that the build script reserves
// (ROM holes, non-critical blocks, modules with a start address), and the loading of
// those ranges once the main BIOS header is finished.

#include "driver/build_context.h"

namespace fwforge {

// Lays out the main BIOS into the gaps between the reserved ranges, from sizing every
// module to finishing the main BIOS header.
void RunGapPlacement(BuildContext& ctx);

// Fills ROM holes with their filler and files and builds the non-critical blocks.
void LoadRomHoles(BuildContext& ctx);

}  // namespace fwforge
