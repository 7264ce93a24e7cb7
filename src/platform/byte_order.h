#pragma once
// Little-endian access into byte buffers: the only way on-disk structures touch raw bytes.

#include <cstdint>

namespace fwforge {

inline std::uint16_t load_le16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}
inline std::uint32_t load_le32(const std::uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | std::uint32_t(p[3]) << 24;
}
inline void store_le16(std::uint8_t* p, std::uint16_t v) {
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
}
inline void store_le32(std::uint8_t* p, std::uint32_t v) {
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
    p[2] = std::uint8_t(v >> 16);
    p[3] = std::uint8_t(v >> 24);
}

}  // namespace fwforge
