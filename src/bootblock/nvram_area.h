#pragma once

#include "context/build_context.h"

namespace fwforge {

// Reserves the NvramSize bytes below the boot block and the Extended Boot Block for
// the firmware's non-volatile storage, erased (0xFF). Lowers PlacementCursor by
// NvramSize; does nothing at all when NvramSize is 0.
void InitNvramArea(BuildContext& ctx);

}  // namespace fwforge
