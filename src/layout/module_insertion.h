#pragma once
// Module insertion: a module's header and data written at the PlacementCursor and joined
// to the chain, the header of a linked add-on ROM next to its parent, and the segment
// descriptors of an aligned module 0x15 patched with its own address.

#include <cstdint>
#include <vector>

#include "context/build_context.h"

namespace fwforge {

// Inserts module `index` (ModuleCount for the image information module). In sequential
// placement it goes directly below the PlacementCursor, which it lowers; in gap placement
// it goes upwards from the PlacementCursor, which names its room.
void InsertModule(BuildContext& ctx, std::uint32_t index);

// Inserts a module that has a start address there (its header 20 bytes below it, the
// headers of its linked add-on ROMs below that); does nothing for any other module.
void PlaceFixedModule(BuildContext& ctx, std::uint32_t index);

// The module's data as it is stored: its file read into `buffer` and compressed where
// the build compresses it, with MaxModuleSize applied. Returns the data length d; what
// lies past the compressed data is what the module buffer holds there (the rest of the
// file), and the bytes from the buffer's end up to d are 0xFF. `trace_compression`
// prints the verbose " (compressed)" note of the image information module.
std::uint64_t LoadModuleData(BuildContext& ctx, const ModuleEntry& m, bool trace_compression,
                             std::vector<std::uint8_t>& buffer);

// Writes the header of linked add-on ROM `index` below the header written last, which
// must be an add-on ROM's.
void InsertLinkedRom(BuildContext& ctx, std::uint32_t index);

// Patches the two segment descriptors (code and data) of a module whose stored data
// starts at image offset `data_offset` and is `stored_size` bytes long, and the pointer
// to them, inside `data`, the module buffer. The buffer grows (0xFF) where a patch
// reaches past it.
void PatchDescriptors(std::vector<std::uint8_t>& data, std::uint32_t data_offset,
                      std::uint32_t stored_size, std::uint32_t bios_size);

}  // namespace fwforge
