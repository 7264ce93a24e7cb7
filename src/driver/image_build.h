#pragma once

#include "context/build_context.h"

namespace fwforge {

// Builds the ROM image that the build description describes and writes the ROM file,
// the boot-block file and the image information file.
void BuildRomImage(BuildContext& ctx);

}  // namespace fwforge
