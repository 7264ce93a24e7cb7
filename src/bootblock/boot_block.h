#pragma once

#include "context/build_context.h"

namespace fwforge {

// The boot block is the top 64 KB segment's last BootBlockSize bytes: taken from the
// boot block file, stamped with the BIOS tag and a checksum, written to
// OutputPath/TAG.int and placed at the top of the image. Lowers PlacementCursor by
// BootBlockSize.
void BuildBootBlock(BuildContext& ctx);

}  // namespace fwforge
