#include "compress/block_coder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "compress/compress_test_support.h"
#include "compress/huffman_code.h"
#include "compress/lzh_decoder.h"

namespace fwforge::lzh {
namespace {

using testing::Bytes;
using testing::CodeBlocks;
using testing::Coded;
using testing::Lit;
using testing::Match;

// Expected streams are written down field by field, as the format describes them.
class Bits {
public:
    Bits& Put(unsigned n, unsigned value) {
        for (unsigned i = n; i-- > 0;) bits_ += ((value >> i) & 1) ? '1' : '0';
        return *this;
    }
    Bits& Code(const char* code) {
        bits_ += code;
        return *this;
    }
    Bits& Repeat(unsigned times, const char* code) {
        for (unsigned i = 0; i < times; ++i) bits_ += code;
        return *this;
    }
    std::size_t Size() const { return bits_.size(); }
    // Whole bytes, the last one padded with zeros.
    Bytes ToBytes() const {
        Bytes out((bits_.size() + 7) / 8, 0);
        for (std::size_t i = 0; i < bits_.size(); ++i) {
            if (bits_[i] == '1') out[i / 8] |= static_cast<std::uint8_t>(0x80 >> (i % 8));
        }
        return out;
    }

private:
    std::string bits_;
};

// The block header of a block whose tokens all use one literal/length symbol, with no
// match or with all distance codes of one bit length.
Bits& SingleSymbolHeader(Bits& bits, unsigned tokens, unsigned symbol, unsigned dist_bits) {
    return bits.Put(16, tokens)
        .Put(5, 0)
        .Put(5, 0)
        .Put(9, 0)
        .Put(9, symbol)
        .Put(4, 0)
        .Put(4, dist_bits);
}

TEST(BlockCoder, WritesBlocksBitForBit) {
    struct Case {
        const char* name;
        std::vector<std::vector<Lh5Token>> blocks;
        Bits expected;
    };
    std::vector<Case> cases;
    {
        // One symbol: the four fixed fields, and the tokens take no bits at all.
        Bits bits;
        SingleSymbolHeader(bits, 3, 'A', 0);
        cases.push_back({"single literal symbol", {{Lit('A'), Lit('A'), Lit('A')}}, bits});
    }
    {
        // One length symbol and one distance bit length: only the distance's low bit.
        Bits bits;
        SingleSymbolHeader(bits, 3, 256, 2).Code("0").Code("1").Code("0");
        cases.push_back({"single match symbol", {{Match(3, 3), Match(3, 4), Match(3, 3)}}, bits});
    }
    {
        // 'A' and 'U': 65 zero lengths (symbol 2 and 9 bits), 'A', then exactly 19
        // zeros (symbol 0, then symbol 1 with 4 bits 15), then 'U'. The code-length
        // code {0:3, 1:3, 2:2, 3:1} bits has no zero among places four to six.
        Bits bits;
        bits.Put(16, 2);
        bits.Put(5, 4).Put(3, 3).Put(3, 3).Put(3, 2).Put(2, 0).Put(3, 1);
        bits.Put(9, 86).Code("10").Put(9, 45).Code("0").Code("110").Code("111").Put(4, 15).Code(
            "0");
        bits.Put(4, 0).Put(4, 0);
        bits.Code("0").Code("1");
        cases.push_back({"run of 19 zero lengths", {{Lit('A'), Lit('U')}}, bits});
    }
    {
        // Literals 1-16 once each: all lengths 4 behind one zero; the code-length code
        // has symbols 0 and 6 only, so three zeros at places four to six are skipped.
        Bits bits;
        bits.Put(16, 16);
        bits.Put(5, 7).Put(3, 1).Put(3, 0).Put(3, 0).Put(2, 3).Put(3, 1);
        bits.Put(9, 17).Code("0").Repeat(16, "1");
        bits.Put(4, 0).Put(4, 0);
        for (unsigned i = 0; i < 16; ++i) bits.Put(4, i);
        std::vector<Lh5Token> tokens;
        for (unsigned i = 1; i <= 16; ++i) tokens.push_back(Lit(static_cast<std::uint8_t>(i)));
        cases.push_back({"zero lengths skipped in the code-length code", {tokens}, bits});
    }
    {
        // Blocks follow one another without byte alignment.
        Bits bits;
        SingleSymbolHeader(bits, 1, 'A', 0);
        SingleSymbolHeader(bits, 2, 'B', 0);
        cases.push_back({"two blocks", {{Lit('A')}, {Lit('B'), Lit('B')}}, bits});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Coded coded = CodeBlocks(c.blocks, 1000);
        EXPECT_FALSE(coded.stopped);
        EXPECT_EQ(coded.stream, c.expected.ToBytes());
    }
}

// The closing seven zero bits push out a partial byte but never add a byte of their
// own: 52 header bits plus one bit per token.
TEST(BlockCoder, FinishStreamWritesNoByteAfterAByteBoundary) {
    struct Case {
        unsigned tokens;
        std::size_t bytes;
    };
    for (const Case c : {Case{4, 7}, Case{5, 8}, Case{11, 8}, Case{12, 8}, Case{13, 9}}) {
        const Coded coded = CodeBlocks({std::vector<Lh5Token>(c.tokens, Match(3, 4))}, 1000);
        Bits bits;
        SingleSymbolHeader(bits, c.tokens, 256, 2).Repeat(c.tokens, "1");
        EXPECT_EQ(coded.stream.size(), c.bytes) << c.tokens << " tokens";
        EXPECT_EQ(coded.stream, bits.ToBytes());
    }
}

// With as many bytes written as consumed, the next finished byte is dropped, the stop
// flag is set and nothing follows.
TEST(BlockCoder, OutputBoundStopsTheStream) {
    Bits bits;
    SingleSymbolHeader(bits, 3, 'A', 0);
    const Bytes full = bits.ToBytes();
    for (std::uint32_t bound = 0; bound <= full.size(); ++bound) {
        const Coded coded = CodeBlocks({{Lit('A'), Lit('A'), Lit('A')}}, bound);
        EXPECT_EQ(coded.stopped, bound < full.size()) << "bound " << bound;
        EXPECT_EQ(coded.stream, Bytes(full.begin(), full.begin() + bound));
    }
}

// A literal code that would need more than 16 bits is flattened; the stream still
// decodes, to the literals in order.
TEST(BlockCoder, FlattenedLiteralCodeDecodes) {
    const Bytes letters = testing::FibonacciLetters();
    {
        std::vector<std::uint32_t> counts(2 * 256 - 1, 0);
        for (auto b : letters) ++counts[b];
        std::vector<std::uint8_t> lengths(256);
        std::vector<std::uint16_t> codes(256);
        BuildHuffmanCode(counts, lengths, codes);
        ASSERT_EQ(*std::max_element(lengths.begin(), lengths.end()), 16);
    }
    const Coded coded = CodeBlocks({testing::Literals(letters)}, 1u << 20);
    ASSERT_FALSE(coded.stopped);
    std::string error;
    const auto decoded = DecodeLh5(coded.stream, letters.size(), &error);
    ASSERT_TRUE(decoded) << error;
    EXPECT_EQ(*decoded, letters);
}

}  // namespace
}  // namespace fwforge::lzh
