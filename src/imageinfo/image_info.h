#pragma once
// The image information module: a chain of small records that describes the build
// (tool version, ROM image version and flags, boot-block offsets, the sizes of the boot
// area, the modules with an alignment or a fixed address, the ROM holes). It is written
// to OutputPath/TAG.inf and placed in the image as the module with id 0x80.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "driver/build_context.h"
#include "layout/module_header.h"

namespace fwforge {

// Every record starts with this 5-byte head, followed by ItemCount items of ItemSize
// bytes; records are packed without gaps and multi-byte values are little-endian.
namespace image_info_record {
inline constexpr std::size_t kHeadSize = 5;
inline constexpr HeaderField NextOffset{0, 2};  // from the start of the data
inline constexpr HeaderField Type{2, 1};
inline constexpr HeaderField ItemSize{3, 1};
inline constexpr HeaderField ItemCount{4, 1};
inline constexpr std::uint16_t kLastRecord = 0xFFFF;

inline constexpr std::uint8_t kToolVersionType = 0x60;
inline constexpr std::uint8_t kRomImageType = 0x10;
inline constexpr std::uint8_t kBootBlockOffsetsType = 0x20;
inline constexpr std::uint8_t kBootAreaSizesType = 0x30;
inline constexpr std::uint8_t kConstrainedModulesType = 0x40;
inline constexpr std::uint8_t kRomHolesType = 0x50;

// Items of the 0x40 record: one module with an alignment or a start address.
inline constexpr std::size_t kModuleItemSize = 6;
inline constexpr HeaderField ModuleInsertionIndex{0, 1};
inline constexpr HeaderField ModuleAlignment{1, 1};
inline constexpr HeaderField ModuleStartAddress{2, 4};

// Items of the 0x50 record: one ROM hole or non-critical block from the script.
inline constexpr std::size_t kRomHoleItemSize = 10;
inline constexpr HeaderField RomHoleKind{0, 1};
inline constexpr HeaderField RomHoleFiller{1, 1};
inline constexpr HeaderField RomHoleStart{2, 4};  // image offset, as the gap map left it
inline constexpr HeaderField RomHoleSize{6, 4};
inline constexpr std::uint8_t kFillerHole = 0;
inline constexpr std::uint8_t kFileHole = 1;
inline constexpr std::uint8_t kNonCriticalBlock = 2;
}  // namespace image_info_record

inline constexpr std::uint8_t kImageInfoModuleId = 0x80;

// The image information data for the description as it stands. The 0x40 record has
// ConstrainedModuleCount item slots and the 0x50 record RomHoleCount - FixedModuleCount;
// items beyond the slots are not written and slots without an item stay 0.
std::vector<std::uint8_t> ImageInformationData(const BuildDescription& description);

// Prints the progress line, writes OutputPath/TAG.inf and makes the ModuleTable record
// at index ModuleCount (reset to a fresh [module] record first) the module 0x80 that
// reads that file back. ModuleCount itself is not increased.
void BuildImageInfoModule(BuildContext& ctx);

}  // namespace fwforge
