#pragma once
// Module sizing: how many bytes a module takes in the image (PlacedSize), with the
// "minsize" choice settled and linked add-on ROMs attached to their parents.

#include <cstdint>

#include "context/build_context.h"

namespace fwforge {

// Sizes module `index` of the ModuleTable (ModuleCount for the image information
// module). Modules must be sized in ascending index order: a linked add-on ROM is
// attached to the add-on ROM sized last before it.
void SizeModule(BuildContext& ctx, std::uint32_t index);

}  // namespace fwforge
