#pragma once
// The chain of module headers that starts at the main BIOS header: how a link to a new
// header is encoded, how a header's checksum is formed, and the three operations with
// which every writer of a module header joins it to the chain. A writer of one header at
// the PlacementCursor calls LinkToLastHeader, SealLastHeader and SealNewHeader in this
// order and then sets LastHeader to PlacementCursor + 8.

#include <cstdint>

#include "driver/build_context.h"

namespace fwforge {

inline constexpr std::uint32_t kEndOfChain = 0xFFFFFFFF;
inline constexpr std::uint8_t kAddonRomId = 0x20;

// The 16-bit form of a link to the base header of the module header at image offset
// `header`: the real-mode address split into offset (low word) and segment (high word),
// with the offset kept at 8 or more so that segment:(offset - 8) reaches the header's
// first byte through the same segment.
std::uint32_t RealModeLink(std::uint32_t bios_size, std::uint32_t header);

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
