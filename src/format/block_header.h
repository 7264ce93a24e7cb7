#pragma once
// The 24-byte header at the start of a module container inside the image: the
// Extended Boot Block ("ZELEBBLK") and every non-critical block ("ZELNCBLK"). Both
// share this layout; they differ in the signature and in how HeaderChecksum is formed.
// The modules inside are chained with 32-bit links counted from the block's start.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "format/field.h"
#include "format/module_header.h"

namespace fwforge {

namespace block_header {
inline constexpr std::size_t kSize = 24;
inline constexpr HeaderField Signature{0, 8};     // 8 ASCII characters, no terminator
inline constexpr HeaderField HeaderLength{8, 2};  // kSize
inline constexpr HeaderField HeaderChecksum{10, 2};
inline constexpr HeaderField BlockLength{12, 4};
inline constexpr HeaderField BlockChecksum{16, 4};
inline constexpr HeaderField FirstModuleOffset{20, 4};  // kFirstModuleOffset or kEndOfChain
static_assert(FirstModuleOffset.end() == kSize);

// The first module's header directly follows the block header.
inline constexpr std::uint32_t kFirstModuleOffset = Link32(kSize, 0);

inline constexpr std::string_view kEbbSignature = "ZELEBBLK";
inline constexpr std::string_view kNcbSignature = "ZELNCBLK";
static_assert(kEbbSignature.size() == Signature.width && kNcbSignature.size() == Signature.width);
}  // namespace block_header

// The two blocks seal their header differently, and firmware checks each its own way.
enum class HeaderChecksumRule {
    // Extended Boot Block: the low 16 bits of the DwordChecksum of the 24 header bytes.
    // The field sits in the upper half of the doubleword at 8, so storing it leaves
    // neither the header nor the block summing to zero; firmware knows this.
    LowWordOfDwordChecksum,
    // Non-critical block: 0 minus the 16-bit sum of the header's twelve words, so that
    // the header's words sum to zero afterwards.
    WordChecksum,
};

// The HeaderChecksum by `rule` of the header at `block` in `image` (which holds it), with
// the HeaderChecksum field counted as 0 and every other field as it stands.
std::uint16_t BlockHeaderChecksum(std::span<const std::uint8_t> image, std::size_t block,
                                  HeaderChecksumRule rule);

// The BlockChecksum that seals the block of `length` bytes at `block` in `image` (which
// holds it) as its bytes stand: with both checksum fields counted as 0, and bytes past
// the block's end, where its length is not a multiple of 4, as 0.
std::uint32_t ComputeBlockChecksum(std::span<const std::uint8_t> image, std::size_t block,
                                   std::size_t length);

// Writes the header of the block of `block_length` bytes at image offset `block` and
// seals it: BlockChecksum first, over the whole block with both checksum fields 0,
// then HeaderChecksum by `rule`. Neither is recomputed after the other. The caller has
// checked that the block lies inside `image`.
void WriteBlockHeader(std::span<std::uint8_t> image, std::size_t block, std::string_view signature,
                      std::uint32_t block_length, bool holds_module, HeaderChecksumRule rule);

}  // namespace fwforge
