#include "compress/huffman_code.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "compress/compress_test_support.h"

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

std::uint32_t KraftSum(const std::vector<std::uint8_t>& lengths) {
    std::uint32_t sum = 0;
    for (auto len : lengths) {
        if (len != 0) sum += 1u << (16 - len);
    }
    return sum;
}

// Worked by hand through the heap rules: the tie between equal counts decides which
// symbol is extracted first and so which one gets the longer code.
TEST(HuffmanCode, HeapTieBreakingDecidesLengthsAndCanonicalCodes) {
    struct Case {
        std::vector<std::uint32_t> counts;
        std::vector<std::uint8_t> lengths;
        std::vector<std::uint16_t> codes;
    };
    const Case cases[] = {
        {{3, 5}, {1, 1}, {0, 1}},
        {{2, 1, 1}, {1, 2, 2}, {0, 2, 3}},
        {{1, 1, 2}, {2, 2, 1}, {2, 3, 0}},
        {{1, 1, 1, 1}, {2, 2, 2, 2}, {0, 1, 2, 3}},
        // The code-length code of a block with one run of 19 and one of 65 zeros.
        {{1, 1, 1, 2}, {3, 3, 2, 1}, {6, 7, 2, 0}},
        {{0, 4, 0, 1, 1}, {0, 1, 0, 2, 2}, {0, 0, 0, 2, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.counts));
        const Code code = Build(c.counts);
        const auto used = c.counts.size() - std::count(c.counts.begin(), c.counts.end(), 0u);
        EXPECT_EQ(code.root, c.counts.size() + used - 2);
        EXPECT_EQ(code.lengths, c.lengths);
        for (std::size_t i = 0; i < c.lengths.size(); ++i) {
            if (c.lengths[i] != 0) {
                EXPECT_EQ(code.codes[i], c.codes[i]) << "symbol " << i;
            }
        }
    }
}

TEST(HuffmanCode, SingleOrNoSymbolIsReturnedAsRootWithLengthZero) {
    struct Case {
        std::vector<std::uint32_t> counts;
        unsigned root;
    };
    const Case cases[] = {{{0, 0, 7, 0}, 2}, {{0, 0, 0, 0}, 0}, {{9, 0, 0}, 0}, {{0, 0, 0, 1}, 3}};
    for (const auto& c : cases) {
        const Code code = Build(c.counts);
        EXPECT_EQ(code.root, c.root);
        EXPECT_EQ(code.codes[c.root], 0);
        for (auto len : code.lengths) EXPECT_EQ(len, 0);
    }
}

// Fibonacci counts make a chain 19 deep; the leaves are pulled up to 16 bits and the
// code stays complete. Worked by hand: 6 codes of 16 bits, one of 15, none of 14, and
// one each of 13 down to 1, handed out rarest first.
TEST(HuffmanCode, FlattensCodesLongerThan16Bits) {
    std::vector<std::uint32_t> counts = {1, 1};
    while (counts.size() < 20)
        counts.push_back(counts[counts.size() - 1] + counts[counts.size() - 2]);
    const Code code = Build(counts);
    std::vector<std::uint8_t> expected = {16, 16, 16, 16, 16, 16, 15};
    for (std::uint8_t len = 13; len >= 1; --len) expected.push_back(len);
    EXPECT_EQ(code.lengths, expected);
    EXPECT_EQ(KraftSum(code.lengths), 65536u);
}

TEST(HuffmanCode, RandomCountsGiveCompleteCodesOfAtMost16Bits) {
    testing::Rng rng(7);
    for (int round = 0; round < 200; ++round) {
        const std::size_t n = 2 + rng.Below(509);
        std::vector<std::uint32_t> counts(n);
        for (auto& c : counts) {
            // Skewed counts, often zero, sometimes huge: deep trees are common.
            const std::uint32_t r = rng.Below(4);
            c = r == 0 ? 0 : r == 1 ? 1 : rng.Below(1u << rng.Below(14));
        }
        counts[0] = counts[0] == 0 ? 1 : counts[0];
        counts[n - 1] = counts[n - 1] == 0 ? 3 : counts[n - 1];
        const Code code = Build(counts);
        ASSERT_EQ(KraftSum(code.lengths), 65536u);
        // Canonical: codes of one length rise with the symbol, and all are distinct.
        std::vector<std::vector<std::uint16_t>> by_length(17);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_LE(code.lengths[i], 16);
            ASSERT_EQ(code.lengths[i] == 0, counts[i] == 0) << "symbol " << i;
            if (code.lengths[i] != 0) by_length[code.lengths[i]].push_back(code.codes[i]);
        }
        for (const auto& codes : by_length) {
            for (std::size_t k = 1; k < codes.size(); ++k) ASSERT_EQ(codes[k], codes[k - 1] + 1);
        }
    }
}

}  // namespace
}  // namespace fwforge::lzh
