#pragma once
// The hexadecimal conversions of the build script's value forms ("%x", "%08x", "%04x"),
// performed the way the system's C runtime performs them. The host's scanf is not used:
// runtimes disagree on a "0x" prefix without digits, and scripts depend on one reading.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace fwforge::script {

// No field width: "%x".
inline constexpr std::size_t kNoWidth = 0;

// Converts `text` like the formatted input "%<width>x":
// - leading white space (space, tab, LF, VT, FF, CR) is skipped and not counted;
// - then an optional "+" or "-", an optional "0x"/"0X" prefix, and hexadecimal digits up
//   to the first other character; the width counts the sign and the prefix as well;
// - no digit read (also "0x" or "-" alone) is a failed conversion;
// - the value wraps modulo 2^32, and a minus sign negates it modulo 2^32.
// The text is a C string: a zero byte ends it.
std::optional<std::uint32_t> ScanHex(std::string_view text, std::size_t width = kNoWidth);

}  // namespace fwforge::script
