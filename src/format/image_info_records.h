#pragma once
// The data of the image information module (and of the TAG.inf file): a chain of small
// records that describes the build. Every record starts with a 5-byte head, followed by
// ItemCount items of ItemSize bytes; records are packed without gaps.

#include <cstddef>
#include <cstdint>

#include "format/field.h"

namespace fwforge {

namespace image_info_record {
inline constexpr std::size_t kHeadSize = 5;
inline constexpr HeaderField NextOffset{0, 2};  // from the start of the data
inline constexpr HeaderField Type{2, 1};
inline constexpr HeaderField ItemSize{3, 1};
inline constexpr HeaderField ItemCount{4, 1};
inline constexpr std::uint16_t kLastRecord = 0xFFFF;  // NextOffset of the last record
static_assert(ItemCount.end() == kHeadSize);

// 0x60: the tool version, 4 characters without terminator.
inline constexpr std::uint8_t kToolVersionType = 0x60;
inline constexpr std::size_t kToolVersionItemSize = 4;
inline constexpr HeaderField ToolVersion{0, 4};

// 0x10: the ROM image version and flags (rom_image_flag bits).
inline constexpr std::uint8_t kRomImageType = 0x10;
inline constexpr std::size_t kRomImageItemSize = 2;
inline constexpr HeaderField RomImageVersion{0, 1};
inline constexpr HeaderField RomImageFlags{1, 1};

// 0x20: where the boot block holds its tag and its checksum.
inline constexpr std::uint8_t kBootBlockOffsetsType = 0x20;
inline constexpr std::size_t kBootBlockOffsetsItemSize = 8;
inline constexpr HeaderField BiosTagOffset{0, 4};
inline constexpr HeaderField ChecksumOffset{4, 4};

// 0x30: the boot area (boot block and Extended Boot Block) and the NVRAM area.
inline constexpr std::uint8_t kBootAreaSizesType = 0x30;
inline constexpr std::size_t kBootAreaSizesItemSize = 8;
inline constexpr HeaderField BootAreaSize{0, 4};
inline constexpr HeaderField NvramSize{4, 4};

// 0x40: one item per module with an alignment or a start address.
inline constexpr std::uint8_t kConstrainedModulesType = 0x40;
inline constexpr std::size_t kModuleItemSize = 6;
inline constexpr HeaderField ModuleInsertionIndex{0, 1};
inline constexpr HeaderField ModuleAlignment{1, 1};
inline constexpr HeaderField ModuleStartAddress{2, 4};  // 0xFFFFFFFF: none

// 0x50: one item per ROM hole or non-critical block of the build script.
inline constexpr std::uint8_t kRomHolesType = 0x50;
inline constexpr std::size_t kRomHoleItemSize = 10;
inline constexpr HeaderField RomHoleKind{0, 1};
inline constexpr HeaderField RomHoleFiller{1, 1};
inline constexpr HeaderField RomHoleStart{2, 4};  // image offset, as the gap map left it
inline constexpr HeaderField RomHoleSize{6, 4};
inline constexpr std::uint8_t kFillerHole = 0;
inline constexpr std::uint8_t kFileHole = 1;
inline constexpr std::uint8_t kNonCriticalBlock = 2;

static_assert(ToolVersion.end() == kToolVersionItemSize &&
              RomImageFlags.end() == kRomImageItemSize &&
              ChecksumOffset.end() == kBootBlockOffsetsItemSize &&
              NvramSize.end() == kBootAreaSizesItemSize &&
              ModuleStartAddress.end() == kModuleItemSize && RomHoleSize.end() == kRomHoleItemSize);
}  // namespace image_info_record

}  // namespace fwforge
