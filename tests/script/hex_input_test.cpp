#include "script/hex_input.h"

#include <gtest/gtest.h>

#include <string>

namespace fwforge::script {
namespace {

constexpr std::optional<std::uint32_t> kFails = std::nullopt;

struct HexCase {
    std::string text;
    std::size_t width;
    std::optional<std::uint32_t> expected;
};

TEST(ScanHex, ConvertsLikeTheRuntimeFormattedInput) {
    const std::size_t any = kNoWidth;
    const HexCase cases[] = {
        // "%x": any number of digits, wrapping modulo 2^32.
        {"0", any, 0}, {"ff", any, 0xFF}, {"FF", any, 0xFF}, {"aBcD", any, 0xABCD},
        {"0x1f", any, 0x1F}, {"0X1F", any, 0x1F}, {"+1f", any, 0x1F}, {"+0x1f", any, 0x1F},
        {"-1", any, 0xFFFFFFFF}, {"-0x10", any, 0xFFFFFFF0}, {" -1", any, 0xFFFFFFFF},
        {"ffffffff", any, 0xFFFFFFFF}, {"100000000", any, 0}, {"123456789", any, 0x23456789},
        {"0x123456789", any, 0x23456789}, {"000000000000000012", any, 0x12},
        {"12g34", any, 0x12}, {"12:34", any, 0x12}, {"00x1", any, 0}, {"  12", any, 0x12},
        {"\t\r\n\v\f12", any, 0x12}, {std::string("1\0" "2", 3), any, 0x1},
        // Conversions that read no digit fail.
        {"", any, kFails}, {"   ", any, kFails}, {"g", any, kFails}, {"x12", any, kFails},
        {"0x", any, kFails}, {"0X", any, kFails}, {"0xg", any, kFails}, {"-", any, kFails},
        {"+", any, kFails}, {"-0x", any, kFails}, {"--1", any, kFails}, {"+-1", any, kFails},
        {"- 1", any, kFails}, {"\xff" "1", any, kFails}, {std::string("\0" "12", 3), any, kFails},
        // "%08x": the sign and the prefix count against the width, white space does not.
        {"0x123456789", 8, 0x123456}, {"123456789", 8, 0x12345678}, {"00080000", 8, 0x80000},
        {"000800001", 8, 0x80000}, {"10", 8, 0x10}, {"-1", 8, 0xFFFFFFFF},
        {"-12345678", 8, 0u - 0x1234567u}, {"+0x12345678", 8, 0x12345}, {"  \t0x1", 8, 0x1},
        {"ffffffff", 8, 0xFFFFFFFF}, {"0x", 8, kFails}, {"zz", 8, kFails},
        // "%04x".
        {"1234", 4, 0x1234}, {"12345", 4, 0x1234}, {"0x12", 4, 0x12}, {"-0x1", 4, 0xFFFFFFFF},
        {"-123", 4, 0u - 0x123u}, {"0x", 4, kFails}, {"0xg1", 4, kFails}, {"12:3", 4, 0x12},
        // A width too small for the prefix reads its "0" as a digit; a width that ends
        // right after the prefix leaves no digit.
        {"0x1", 1, 0}, {"0x1", 2, kFails}, {"0x1", 3, 1}, {"-0x1", 2, 0},
    };
    for (const HexCase& c : cases) {
        SCOPED_TRACE("text \"" + c.text + "\" width " + std::to_string(c.width));
        EXPECT_EQ(ScanHex(c.text, c.width), c.expected);
    }
}

}  // namespace
}  // namespace fwforge::script
