#pragma once
// The image information module: a chain of small records (format/image_info_records.h)
// that describes the build (tool version, ROM image version and flags, boot-block
// offsets, the sizes of the boot area, the modules with an alignment or a fixed address,
// the ROM holes). It is written to OutputPath/TAG.inf and placed in the image as the
// module with id 0x80.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "context/build_context.h"
#include "format/image_info_records.h"
#include "format/module_header.h"

namespace fwforge {

// The image information data for the description as it stands. The 0x40 record has
// ConstrainedModuleCount item slots and the 0x50 record RomHoleCount - FixedModuleCount;
// items beyond the slots are not written and slots without an item stay 0.
std::vector<std::uint8_t> ImageInformationData(const BuildDescription& description);

// Prints the progress line, writes OutputPath/TAG.inf and makes the ModuleTable record
// at index ModuleCount (reset to a fresh [module] record first) the module 0x80 that
// reads that file back. ModuleCount itself is not increased.
void BuildImageInfoModule(BuildContext& ctx);

}  // namespace fwforge
