#pragma once
// ROM holes and non-critical blocks, loaded once the main BIOS header is finished: every
// range from the build script is filled with its filler, a ROM hole then takes its file,
// and a non-critical block is built as a container of its own (a block header with the
// non-critical block's signature, its modules chained with 32-bit links counted from the
// block's start).

#include <cstdint>

#include "context/build_context.h"

namespace fwforge {

// Fills the ROM holes and builds the non-critical blocks, in RomHoleTable order. The
// first block switches Use32BitMode on for the rest of the run.
void LoadRomHoles(BuildContext& ctx);

// Writes and seals the header of the non-critical block of `block_length` bytes at image
// offset `block`; the block holds a module unless the PlacementCursor has not moved past
// the header.
void BuildNcbHeader(BuildContext& ctx, std::uint32_t block, std::uint32_t block_length);

}  // namespace fwforge
