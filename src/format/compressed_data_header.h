#pragma once
// Compressed module data, as the firmware unpacks it: this 8-byte header, the lh5 bit
// stream and a closing 0x00.

#include <cstddef>
#include <cstdint>

#include "format/field.h"

namespace fwforge {

namespace compressed_data_header {
inline constexpr std::size_t kSize = 8;
inline constexpr HeaderField TotalSize{0, 4};     // header + bit stream + closing byte
inline constexpr HeaderField OriginalSize{4, 4};  // input bytes the encoder consumed
static_assert(OriginalSize.end() == kSize);
}  // namespace compressed_data_header

// The header plus the closing byte: what a run adds around its bit stream.
inline constexpr std::uint32_t kCompressedOverhead = compressed_data_header::kSize + 1;

}  // namespace fwforge
