#pragma once
// The room a module takes in the main BIOS, as module sizing counts it. The builder
// reserves it and the reader works back from it, so the rules live here once.

#include <cstdint>

namespace fwforge::module_room {

// Stored sizes are whole doublewords.
constexpr std::uint64_t RoundUp4(std::uint64_t size) {
    return (size + 3) & ~std::uint64_t{3};
}

// Sizing counts this many bytes beyond a compressed total that the build computed; the
// data stored is the total alone, so the reserve shows only in the room.
inline constexpr std::uint32_t kCompressedReserve = 2;

// The bytes a room holds beyond the data for moving the data's start up to a multiple
// of `alignment` (0: none). Rooms start on multiples of 4, so a multiple of 4 needs at
// most alignment - 4, and sequential placement widens the module itself. In gap
// placement any other alignment can need alignment - 1 bytes; the reserve is that,
// rounded up to a multiple of 4, so that every room still starts on a multiple of 4
// and a later module's own alignment reserve stays enough.
constexpr std::uint32_t AlignmentReserve(std::uint32_t alignment, bool gap_placement) {
    if (alignment == 0) return 0;
    if (!gap_placement || alignment % 4 == 0) return alignment - 4;
    return static_cast<std::uint32_t>(RoundUp4(alignment - 1));
}

}  // namespace fwforge::module_room
