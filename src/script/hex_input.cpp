#include "script/hex_input.h"

namespace fwforge::script {
namespace {

bool IsScanSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::uint32_t> ScanHex(std::string_view text, std::size_t width) {
    text = text.substr(0, text.find('\0'));
    const std::size_t limit = width == kNoWidth ? text.size() : width;
    std::size_t pos = 0;
    while (pos < text.size() && IsScanSpace(text[pos])) ++pos;
    text.remove_prefix(pos);

    // From here every consumed character counts against the width.
    std::size_t used = 0;
    auto at = [&](std::size_t i) { return i < text.size() ? text[i] : '\0'; };
    bool negative = false;
    if (used < limit && (at(used) == '+' || at(used) == '-')) {
        negative = at(used) == '-';
        ++used;
    }
    // The prefix is taken only when both its characters fit the width; a "0" that has
    // to stand alone is an ordinary digit.
    if (used + 2 <= limit && at(used) == '0' && (at(used + 1) == 'x' || at(used + 1) == 'X')) {
        used += 2;
    }
    std::uint32_t value = 0;
    std::size_t digits = 0;
    while (used < limit) {
        const int digit = HexDigit(at(used));
        if (digit < 0) break;
        value = value * 16u + static_cast<std::uint32_t>(digit);
        ++used;
        ++digits;
    }
    if (digits == 0) return std::nullopt;
    return negative ? 0u - value : value;
}

}  // namespace fwforge::script
