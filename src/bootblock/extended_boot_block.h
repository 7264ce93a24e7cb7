#pragma once

#include "context/build_context.h"

namespace fwforge {

// Builds the Extended Boot Block in the MaxEbbSize bytes below the boot block: its block
// header, then the modules of EbbModuleList packed upwards in list order, each behind a
// module header whose 32-bit link counts from the block's start. Fills each record's
// header image and EbbOffset. Lowers PlacementCursor by MaxEbbSize; with MaxEbbSize 0
// there is no block and the cursor stays.
void BuildExtendedBootBlock(BuildContext& ctx);

}  // namespace fwforge
