#pragma once
// A structural checker for built ROM images: finds the main BIOS header, checks its
// region sum and length, walks the module chain from it in either link form and checks
// every module header's checksum. Tests of every layout feature reuse it.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace fwforge::testing {

struct ChainEntry {
    std::uint32_t header = 0;  // image offset of the module header's first byte
    std::uint32_t data_size = 0;
    std::uint16_t data_size16 = 0;
    std::uint8_t module_id = 0;
    std::uint8_t attributes = 0;
    std::uint16_t dest_offset = 0;   // or VendorId
    std::uint16_t dest_segment = 0;  // or DeviceId
    // Data of this header: none for a linked add-on ROM.
    std::uint32_t data() const { return header + 20; }
};

struct MainBiosCheck {
    std::vector<std::string> problems;  // empty when the image is sound
    std::uint32_t main_header = 0;      // image offset of the signature
    std::uint32_t region_start = 0;     // first byte covered by the header checksum
    std::uint16_t length_field = 0;
    std::vector<ChainEntry> chain;      // in chain order
};

// How links are encoded: 32-bit image offsets, or 16-bit offset:segment real-mode
// addresses of an image that ends at 0xFFFFF.
enum class LinkForm { Real16, Flat32 };

// Image offset of the main BIOS header's signature: the highest "ZELBIOSC" whose
// extension sizes are 8 and 10. Returns 0xFFFFFFFF when there is none.
std::uint32_t FindMainHeader(std::span<const std::uint8_t> rom);

// Checks the main BIOS of `rom`: the header's region sums to 0 and its length field
// matches the region (capped at 0xFFFF for 0x80000 bytes or more), the chain reaches
// 0xFFFFFFFF without leaving the image or looping, and every header with its covered
// data sums to 0 (a split module's pieces are summed into its last header).
MainBiosCheck CheckMainBios(std::span<const std::uint8_t> rom, LinkForm form);

// The 32-bit wrapping sum of the little-endian doublewords of `bytes`.
std::uint32_t SumDwords(std::span<const std::uint8_t> bytes);
// The same over `length` bytes from `start`; a last doubleword that reaches past the
// range takes the bytes after it, and bytes past the end of `rom` count as 0.
std::uint32_t SumDwords(std::span<const std::uint8_t> rom, std::size_t start, std::size_t length);

}  // namespace fwforge::testing
