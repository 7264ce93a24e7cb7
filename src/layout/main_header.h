#pragma once
// The main BIOS header: the block that marks the top of the main BIOS, with its
// signature, the boot block stamp, the length and checksum of the main BIOS and the link
// to the first module header. An extension of MainHeaderExtension bytes lies in front
// of the 22-byte header and carries the ROM image version and flags.

#include <cstddef>
#include <cstdint>

#include "driver/build_context.h"
#include "layout/module_header.h"

namespace fwforge {

// Field offsets, counted from the first byte of the signature. The extension fields are
// counted backwards from the signature, so they stay put whatever the extension's size.
namespace main_header {
inline constexpr std::size_t kSize = 22;
inline constexpr char kSignature[] = "ZELBIOSC";       // 8 characters, stored without terminator
inline constexpr std::ptrdiff_t RomImageVersion = -5;  // 1 byte; 0 in compatibility form
inline constexpr std::ptrdiff_t RomImageFlags = -4;    // 1 byte; 0 in compatibility form
inline constexpr std::ptrdiff_t ModuleExtensionSize = -2;  // 1 byte
inline constexpr std::ptrdiff_t MainExtensionSize = -1;    // 1 byte
inline constexpr HeaderField Signature{0, 8};
inline constexpr HeaderField BootBlockStamp{8, 4};
inline constexpr HeaderField Length{12, 2};  // region length / 8, 0xFFFF when capped
inline constexpr HeaderField Checksum{14, 4};
inline constexpr HeaderField FirstLink{18, 4};  // 32-bit offset, or 16-bit offset + segment
// Regions of 0x80000 bytes or more are capped: the length word says 0xFFFF and the
// checksum covers only the 0x7FFF8 bytes below the header's end.
inline constexpr std::uint32_t kRegionCap = 0x80000;
inline constexpr std::uint16_t kCappedLength = 0xFFFF;
}  // namespace main_header

// Size of the extension and header together, rounded up to a paragraph (32 bytes for the
// extension of 10). Rounding bytes would lie above the header and are never written.
std::uint32_t MainHeaderBlockSize(const BuildDescription& description);

// Writes the header block directly below the PlacementCursor, leaves the cursor at the
// block's first byte and starts the module chain at the new header.
void CreateMainHeader(BuildContext& ctx);

// Sets the length and checksum once the last module has been placed. In sequential
// placement the bytes from the 8-byte boundary below the lowest item up to it become
// '0' (0x30) and are covered by the checksum.
void FinishMainHeader(BuildContext& ctx, PlacementMode mode);

}  // namespace fwforge
