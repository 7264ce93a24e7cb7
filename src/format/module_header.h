#pragma once
// The 20-byte module header in front of every module's data: an 8-byte extension
// (DataSize, Checksum) and a 12-byte base header. Links point at the base header, in one
// of two forms: 16-bit (real-mode segment:offset) or 32-bit (an offset).

#include <cstddef>
#include <cstdint>
#include <optional>

#include "format/field.h"
#include "platform/byte_order.h"

namespace fwforge {

namespace module_header {
inline constexpr std::size_t kSize = 20;
inline constexpr std::size_t kExtensionSize = 8;  // base header starts here
inline constexpr HeaderField DataSize{0, 4};
inline constexpr HeaderField Checksum{4, 4};
inline constexpr HeaderField NextModuleLink{8, 4};
inline constexpr HeaderField DataSize16{12, 2};  // DataSize16For(DataSize)
inline constexpr HeaderField ModuleId{14, 1};
inline constexpr HeaderField ModuleAttributes{15, 1};
inline constexpr HeaderField DestOffset{16, 2};   // or the PCI VendorId of an add-on ROM
inline constexpr HeaderField DestSegment{18, 2};  // or the PCI DeviceId of an add-on ROM
static_assert(Checksum.end() == kExtensionSize && DestSegment.end() == kSize);
}  // namespace module_header

// DataSize16 of a module of `size` data bytes: the size where it fits 16 bits, else
// kDataSize16TooLarge.
inline constexpr std::uint16_t kDataSize16TooLarge = 0xFFFF;
constexpr std::uint16_t DataSize16For(std::uint32_t size) {
    return size < 0x10000 ? static_cast<std::uint16_t>(size) : kDataSize16TooLarge;
}

// The fields of a module header, read from or written to its 20 bytes: the builder
// fills one for each module, the reader reads one from each header, the editor changes
// one and writes it back.
struct ModuleHeader {
    std::uint32_t data_size = 0;
    std::uint32_t checksum = 0;
    std::uint32_t next_link = 0;
    std::uint16_t data_size16 = 0;
    std::uint8_t id = 0;
    std::uint8_t attributes = 0;
    std::uint16_t dest_offset = 0;   // or the PCI VendorId of an add-on ROM
    std::uint16_t dest_segment = 0;  // or the PCI DeviceId of an add-on ROM

    // DataSize, and DataSize16 as it follows from it.
    void SetDataSizes(std::uint32_t size) {
        data_size = size;
        data_size16 = DataSize16For(size);
    }
    bool operator==(const ModuleHeader&) const = default;
};

// `header` holds module_header::kSize bytes.
inline ModuleHeader ReadModuleHeader(const std::uint8_t* header) {
    using namespace module_header;
    ModuleHeader h;
    h.data_size = load_le32(header + DataSize.offset);
    h.checksum = load_le32(header + Checksum.offset);
    h.next_link = load_le32(header + NextModuleLink.offset);
    h.data_size16 = load_le16(header + DataSize16.offset);
    h.id = header[ModuleId.offset];
    h.attributes = header[ModuleAttributes.offset];
    h.dest_offset = load_le16(header + DestOffset.offset);
    h.dest_segment = load_le16(header + DestSegment.offset);
    return h;
}

inline void WriteModuleHeader(std::uint8_t* header, const ModuleHeader& h) {
    using namespace module_header;
    store_le32(header + DataSize.offset, h.data_size);
    store_le32(header + Checksum.offset, h.checksum);
    store_le32(header + NextModuleLink.offset, h.next_link);
    store_le16(header + DataSize16.offset, h.data_size16);
    header[ModuleId.offset] = h.id;
    header[ModuleAttributes.offset] = h.attributes;
    store_le16(header + DestOffset.offset, h.dest_offset);
    store_le16(header + DestSegment.offset, h.dest_segment);
}

// ModuleAttributes bits.
namespace module_attr {
inline constexpr std::uint8_t NotCompressed = 0x80;
inline constexpr std::uint8_t LinkedRom = 0x40;
inline constexpr std::uint8_t SplitPiece = 0x20;
inline constexpr std::uint8_t ContiguousAttr = 0x10;
inline constexpr std::uint8_t kUnused = 0x0F;  // no writer sets these
}  // namespace module_attr

// Module ids that the build and the firmware treat apart.
inline constexpr std::uint8_t kDescriptorModuleId = 0x15;      // holds segment descriptors
inline constexpr std::uint8_t kBootBlockStampModuleId = 0x1B;  // its file gives the stamp
inline constexpr std::uint8_t kAddonRomModuleId = 0x20;        // Dest fields hold PCI ids
inline constexpr std::uint8_t kImageInfoModuleId = 0x80;

// NextModuleLink of the last header of a chain, and the link of an empty one.
inline constexpr std::uint32_t kEndOfChain = 0xFFFFFFFF;

// The 32-bit link to the module header at offset `header`, counted from `origin` (the
// image's start, or the start of the block whose chain it is).
constexpr std::uint32_t Link32(std::uint32_t header, std::uint32_t origin) {
    return header + std::uint32_t(module_header::kExtensionSize) - origin;
}

// The 16-bit link to the module header at image offset `header` of an image of
// `bios_size` bytes that ends at 0xFFFFF: the base header's real-mode address split into
// offset (low word) and segment (high word), with the offset kept at 8 or more so that
// segment:(offset - 8) reaches the header's first byte through the same segment.
inline std::uint32_t RealModeLink(std::uint32_t bios_size, std::uint32_t header) {
    constexpr std::uint32_t kBase = module_header::kExtensionSize;
    const std::uint32_t address = 0x100000u - bios_size + header + kBase;
    std::uint16_t offset = address % 16;
    std::uint16_t segment = static_cast<std::uint16_t>(address / 16);
    if (offset < kBase) {
        offset += 16;
        --segment;
    }
    return offset | std::uint32_t(segment) << 16;
}

// The image offset of the base header that a 16-bit link names, in an image of
// `bios_size` bytes that ends at 0xFFFFF; nothing when it lies below the image or the
// image is too large for 16-bit links.
inline std::optional<std::uint64_t> RealModeLinkTarget(std::uint32_t link,
                                                       std::uint32_t bios_size) {
    if (bios_size > 0x100000) return std::nullopt;
    const std::uint64_t address = std::uint64_t(link >> 16) * 16 + (link & 0xFFFF);
    const std::uint64_t address_base = 0x100000 - bios_size;
    if (address < address_base) return std::nullopt;
    return address - address_base;
}

}  // namespace fwforge
