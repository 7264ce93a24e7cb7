#pragma once
// The sums that seal the image. DwordChecksum: the two's complement of the 32-bit wrapping
// sum of a range's little-endian doublewords, so that the range with the checksum stored
// sums to zero. Module headers, the main BIOS header, the boot block and the block
// headers are sealed with it; a non-critical block's header also with a 16-bit word sum.

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/byte_order.h"

namespace fwforge {

// Sum of the doublewords of `buffer` at start + 0, 4, 8, ... below start + length.
// When the length is not a multiple of 4 the last doubleword reaches past the range,
// as the firmware's checksum loop does; bytes past the end of the buffer count as 0.
inline std::uint32_t DwordSum(std::span<const std::uint8_t> buffer, std::size_t start,
                              std::size_t length) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < length; i += 4) {
        const std::size_t at = start + i;
        if (at + 4 <= buffer.size()) {
            sum += load_le32(buffer.data() + at);
        } else {
            for (std::size_t b = 0; b < 4 && at + b < buffer.size(); ++b) {
                sum += std::uint32_t(buffer[at + b]) << (8 * b);
            }
        }
    }
    return sum;
}

inline std::uint32_t DwordChecksum(std::span<const std::uint8_t> buffer, std::size_t start,
                                   std::size_t length) {
    return 0u - DwordSum(buffer, start, length);
}

// The 16-bit wrapping sum of the little-endian words of `length` bytes (an even number,
// inside `buffer`) from `start`.
inline std::uint16_t WordSum(std::span<const std::uint8_t> buffer, std::size_t start,
                             std::size_t length) {
    std::uint16_t sum = 0;
    for (std::size_t i = 0; i < length; i += 2) {
        sum = std::uint16_t(sum + load_le16(buffer.data() + start + i));
    }
    return sum;
}

}  // namespace fwforge
