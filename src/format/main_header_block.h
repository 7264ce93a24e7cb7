#pragma once
// The main BIOS header block: the block that marks the top of the main BIOS, with its
// signature, the boot block stamp, the length and checksum of the main BIOS and the link
// to the first module header. An extension lies in front of the 22-byte header and
// carries the ROM image version and flags; the block is rounded up to a paragraph.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "format/field.h"

namespace fwforge {

// Field offsets, counted from the first byte of the signature. The extension fields
// (1 byte each) are counted backwards from the signature, so they stay put whatever the
// extension's size.
namespace main_header {
inline constexpr std::size_t kSize = 22;
inline constexpr std::size_t kExtensionSize = 10;           // as the build writes it
inline constexpr std::string_view kSignature = "ZELBIOSC";  // stored without terminator
inline constexpr std::ptrdiff_t RomImageVersion = -5;       // 0 in compatibility form
inline constexpr std::ptrdiff_t RomImageFlags = -4;         // 0 in compatibility form
inline constexpr std::ptrdiff_t ModuleExtensionSize = -2;
inline constexpr std::ptrdiff_t MainExtensionSize = -1;
inline constexpr HeaderField Signature{0, 8};
inline constexpr HeaderField BootBlockStamp{8, 4};
inline constexpr HeaderField Length{12, 2};  // region length / kLengthUnit, or kCappedLength
inline constexpr HeaderField Checksum{14, 4};
inline constexpr HeaderField FirstLink{18, 4};  // 32-bit offset, or 16-bit offset + segment
static_assert(Signature.width == kSignature.size() && FirstLink.end() == kSize);

inline constexpr std::uint32_t kLengthUnit = 8;
// Regions of 0x80000 bytes or more are capped: the length word says 0xFFFF and the
// checksum covers only the kCappedRegion bytes below the header's end.
inline constexpr std::uint32_t kRegionCap = 0x80000;
inline constexpr std::uint16_t kCappedLength = 0xFFFF;
inline constexpr std::uint32_t kCappedRegion = (kRegionCap - 1) / kLengthUnit * kLengthUnit;

// The bytes below the header's end that a Length field of `length` says the checksum
// covers.
constexpr std::uint32_t RegionLength(std::uint16_t length) {
    return length == kCappedLength ? kCappedRegion : std::uint32_t(length) * kLengthUnit;
}

// Size of an extension of `extension` bytes and the header together, rounded up to a
// paragraph. Rounding bytes would lie above the header and are never written.
constexpr std::uint32_t BlockSize(std::uint32_t extension) {
    const std::uint32_t raw = extension + std::uint32_t(kSize);
    return raw + (16 - raw % 16) % 16;
}
inline constexpr std::uint32_t kBlockSize = BlockSize(kExtensionSize);  // as the build writes it
}  // namespace main_header

// RomImageFlags bits, in the main BIOS header and in the image information.
namespace rom_image_flag {
inline constexpr std::uint8_t Mode32Bit = 0x01;
inline constexpr std::uint8_t HasRomHoles = 0x02;
inline constexpr std::uint8_t ModuleSplit = 0x04;
}  // namespace rom_image_flag

}  // namespace fwforge
