#pragma once

#include "driver/build_context.h"

namespace fwforge {

// Builds the ROM image that the build description describes and writes the ROM file,
// the boot-block file and the image information file.
void BuildRomImage(BuildContext& ctx);

// Frees the image; a second call does nothing. The tables belong to the build
// description and go with the context.
void ReleaseImageBuffers(BuildContext& ctx);

}  // namespace fwforge
