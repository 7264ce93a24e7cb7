#pragma once
// The chain of module headers that starts at the main BIOS header: which form of link
// (format/module_header.h) a new header gets, how a header's checksum is formed, and the three
// operations with which every writer of a module header joins it to the chain. A writer of one
// header at the PlacementCursor calls LinkToLastHeader, SealLastHeader and SealNewHeader in this
// order and then sets LastHeader to PlacementCursor + 8.

#include <cstdint>

#include "context/build_context.h"

namespace fwforge {

// The value that links to the module header at image offset `header` in the current mode.
std::uint32_t LinkTo(const BuildContext& ctx, std::uint32_t header, bool from_main_header);

// The checksum of the module header at image offset `header` as the header now stands
// (its Checksum field counted as 0): over the 20 header bytes and DataSize data bytes,
// over the header alone for a linked add-on ROM or while a split module is pending.
std::uint32_t ModuleHeaderChecksum(const BuildContext& ctx, std::uint32_t header);

void LinkToLastHeader(BuildContext& ctx);
void SealLastHeader(BuildContext& ctx);
void SealNewHeader(BuildContext& ctx);

// A module record that only adds a header next to its parent add-on ROM.
bool IsLinkedAddonRom(const ModuleEntry& entry);

}  // namespace fwforge
