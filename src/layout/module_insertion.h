#pragma once
// Module insertion: a module's header and data written at the PlacementCursor and joined
// to the chain, the header of a linked add-on ROM next to its parent, and the segment
// descriptors of an aligned module 0x15 patched with its own address.

#include <cstdint>
#include <span>

#include "driver/build_context.h"

namespace fwforge {

inline constexpr std::uint8_t kDescriptorModuleId = 0x15;

// Inserts module `index` (ModuleCount for the image information module). In sequential
// placement it goes directly below the PlacementCursor, which it lowers; in gap placement
// it goes upwards from the PlacementCursor, which names its room.
void InsertModule(BuildContext& ctx, std::uint32_t index);

// Writes the header of linked add-on ROM `index` below the header written last, which
// must be an add-on ROM's.
void InsertLinkedRom(BuildContext& ctx, std::uint32_t index);

// Patches the two segment descriptors (code and data) of a module whose stored data
// starts at image offset `data_offset` and is `stored_size` bytes long, and the pointer
// to them, inside `data`. Every patched byte must lie inside `data`; `name` identifies
// the module in the message when one does not.
void PatchDescriptors(BuildContext& ctx, std::span<std::uint8_t> data, std::uint32_t data_offset,
                      std::uint32_t stored_size, const std::string& name);

}  // namespace fwforge
