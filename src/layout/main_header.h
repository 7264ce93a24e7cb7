#pragma once
// Writing the main BIOS header block (format/main_header_block.h): created when the
// main BIOS starts, finished with its length and checksum once the last module is placed.

#include <cstdint>

#include "context/build_context.h"
#include "format/main_header_block.h"

namespace fwforge {

// The header block with the description's MainHeaderExtension: 32 bytes for the
// extension of 10.
std::uint32_t MainHeaderBlockSize(const BuildDescription& description);

// Writes the header block directly below the PlacementCursor, leaves the cursor at the
// block's first byte and starts the module chain at the new header.
void CreateMainHeader(BuildContext& ctx);

// Sets the length and checksum once the last module has been placed. In sequential
// placement the bytes from the 8-byte boundary below the lowest item up to it become
// '0' (0x30) and are covered by the checksum.
void FinishMainHeader(BuildContext& ctx, PlacementMode mode);

}  // namespace fwforge
