#pragma once
// The modules diverted to the Extended Boot Block while the build script is read.

#include "script/build_description.h"

namespace fwforge {

enum class EbbOffer {
    NotTaken,  // the module's region is not "EBB"; nothing changed
    Taken,     // appended to EbbModuleList
    ListFull,  // the region is "EBB" but the list already holds kMaxEbbModules records
};

// Offers a finished [module] record to the Extended Boot Block. A record whose
// RomRegion is exactly "EBB" is copied (file, size bound, flags, alignment and the
// module id, attributes and the two 16-bit id/destination fields) to the end of
// EbbModuleList. The list is never grown past kMaxEbbModules; the caller reports that.
EbbOffer AddEbbModule(BuildDescription& description, const ModuleEntry& record);

// Gives module record `module` the start address `address`: its header directly below
// the data, contiguous, and a reservation among the ROM-hole records (sized once the
// module is). False, and nothing changed, when the 16 records are taken.
bool ReserveStartAddress(BuildDescription& description, std::uint32_t module,
                         std::uint32_t address);

}  // namespace fwforge
