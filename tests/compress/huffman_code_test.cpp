// The Huffman code builder, where no compressed stream reaches: exact tie-breaking on
// tiny alphabets, and codes longer than 16 bits, which need counts no block of a real
// input produces.

#include "compress/huffman_code.h"

#include <gtest/gtest.h>

#include <vector>

namespace fwforge::lzh {
namespace {

struct Code {
    unsigned root;
    std::vector<std::uint8_t> lengths;
    std::vector<std::uint16_t> codes;
};

Code Build(std::vector<std::uint32_t> counts) {
    const std::size_t n = counts.size();
    counts.resize(2 * n - 1, 0);
    Code code{0, std::vector<std::uint8_t>(n, 0xEE), std::vector<std::uint16_t>(n, 0xEEEE)};
    code.root = BuildHuffmanCode(counts, code.lengths, code.codes);
    return code;
}

TEST(HuffmanCode, LengthsCodesAndRootFollowTheHeapRules) {
    struct Case {
        std::vector<std::uint32_t> counts;
        unsigned root;
        std::vector<std::uint8_t> lengths;
        std::vector<std::uint16_t> codes;  // of the symbols that have a length
    };
    // Fibonacci counts make a chain 19 deep; its leaves are pulled up to 16 bits: 6 codes
    // of 16 bits, one of 15, none of 14, one each of 13 down to 1, rarest first.
    std::vector<std::uint32_t> fibonacci = {1, 1};
    while (fibonacci.size() < 20) fibonacci.push_back(fibonacci.end()[-1] + fibonacci.end()[-2]);
    std::vector<std::uint8_t> flattened = {16, 16, 16, 16, 16, 16, 15};
    for (std::uint8_t len = 13; len >= 1; --len) flattened.push_back(len);
    std::vector<std::uint16_t> flattened_codes = {0xFFFA, 0xFFFB, 0xFFFC, 0xFFFD, 0xFFFE,
                                                  0xFFFF, 0x7FFC};
    for (unsigned len = 13; len >= 1; --len) {
        flattened_codes.push_back(static_cast<std::uint16_t>((1u << len) - 2));
    }
    const Case cases[] = {
        {{3, 5}, 2, {1, 1}, {0, 1}},
        {{2, 1, 1}, 4, {1, 2, 2}, {0, 2, 3}},
        {{1, 1, 2}, 4, {2, 2, 1}, {2, 3, 0}},
        {{1, 1, 1, 1}, 6, {2, 2, 2, 2}, {0, 1, 2, 3}},
        {{1, 1, 1, 2}, 6, {3, 3, 2, 1}, {6, 7, 2, 0}},
        {{0, 4, 0, 1, 1}, 6, {0, 1, 0, 2, 2}, {0, 0, 0, 2, 3}},
        // A single symbol, or none, is the root itself, with length 0 and code 0.
        {{0, 0, 7, 0}, 2, {0, 0, 0, 0}, {0, 0, 0, 0}},
        {{0, 0, 0, 0}, 0, {0, 0, 0, 0}, {0, 0, 0, 0}},
        {{0, 0, 0, 1}, 3, {0, 0, 0, 0}, {0, 0, 0, 0}},
        {fibonacci, 38, flattened, flattened_codes},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.counts));
        const Code code = Build(c.counts);
        EXPECT_EQ(code.root, c.root);
        EXPECT_EQ(code.lengths, c.lengths);
        for (std::size_t i = 0; i < c.lengths.size(); ++i) {
            if (c.lengths[i] != 0 || c.root == i) {
                EXPECT_EQ(code.codes[i], c.codes[i]) << i;
            }
        }
    }
}

}  // namespace
}  // namespace fwforge::lzh
