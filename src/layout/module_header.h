#pragma once
// The 20-byte module header in front of every module's data: an 8-byte extension
// (DataSize, Checksum) and a 12-byte base header. Links point at the base header.

#include <cstddef>
#include <cstdint>

namespace fwforge {

struct HeaderField {
    std::size_t offset;
    std::size_t width;
};

namespace module_header {
inline constexpr std::size_t kSize = 20;
inline constexpr std::size_t kExtensionSize = 8;  // base header starts here
inline constexpr HeaderField DataSize{0, 4};
inline constexpr HeaderField Checksum{4, 4};
inline constexpr HeaderField NextModuleLink{8, 4};
inline constexpr HeaderField DataSize16{12, 2};
inline constexpr HeaderField ModuleId{14, 1};
inline constexpr HeaderField ModuleAttributes{15, 1};
inline constexpr HeaderField DestOffset{16, 2};   // or the PCI VendorId of an add-on ROM
inline constexpr HeaderField DestSegment{18, 2};  // or the PCI DeviceId of an add-on ROM
}  // namespace module_header

// ModuleAttributes bits.
namespace module_attr {
inline constexpr std::uint8_t NotCompressed = 0x80;
inline constexpr std::uint8_t LinkedRom = 0x40;
inline constexpr std::uint8_t SplitPiece = 0x20;
inline constexpr std::uint8_t ContiguousAttr = 0x10;
}  // namespace module_attr

}  // namespace fwforge
