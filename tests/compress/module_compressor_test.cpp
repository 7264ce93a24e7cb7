#include "compress/module_compressor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "compress/compress_test_support.h"
#include "compress/lzh_decoder.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::lzh {
namespace {

using namespace testing;

std::uint32_t TotalField(const Bytes& data) { return load_le32(data.data()); }
std::uint32_t OriginalField(const Bytes& data) { return load_le32(data.data() + 4); }

Bytes Decode(const Bytes& data, Lh5Trace* trace = nullptr) {
    std::string error;
    auto decoded = DecodeCompressedData(data, &error, trace);
    EXPECT_TRUE(decoded) << error;
    return decoded ? *decoded : Bytes{};
}

// Input that does not compress runs into the bound: the total is exactly size + 9 as
// long as the first fill (8448 bytes) holds the whole input. Nothing gives the frame
// alone; one byte gives the first byte of the block header (the token count's high
// byte), which meets the bound of one consumed byte, and the second is dropped.
TEST(CompressModule, IncompressibleInputStopsAtSizePlus9) {
    EXPECT_EQ(CompressFresh({}), (Bytes{9, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Decode(CompressFresh({})), Bytes{});
    for (std::uint8_t value : {0x00, 0x41, 0xFF}) {
        EXPECT_EQ(CompressFresh(Bytes{value}), (Bytes{10, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00}));
    }
    for (std::size_t size : {0u, 1u, 2u, 3u, 17u, 100u, 1000u, 4096u, 8191u, 8192u, 8447u, 8448u}) {
        CompressResult r;
        const Bytes out = CompressFresh(RandomBytes(size, size), &r);
        EXPECT_TRUE(r.stopped) << size;
        EXPECT_EQ(r.total, size + 9) << size;
        EXPECT_EQ(r.consumed, size);
        EXPECT_EQ(TotalField(out), r.total);
        EXPECT_EQ(OriginalField(out), size);
        EXPECT_EQ(out.back(), 0x00);
    }
}

// The frame holds the total and the original size and ends in a zero byte; the
// destination is written up to the total and not one byte further, and must have room
// for size + 9 bytes.
TEST(CompressModule, FrameAndDestination) {
    Encoder encoder;
    const struct {
        Bytes input;
        bool stopped;
    } cases[] = {{Filled(4096, 0x5A), false}, {SyntheticText(5000, 1), false},
                 {RandomBytes(300, 2), true}};
    for (const auto& [input, stopped] : cases) {
        Bytes out(input.size() + 9 + 16, 0xEE);
        const CompressResult r = encoder.CompressModule(input, out);
        EXPECT_EQ(TotalField(out), r.total);
        EXPECT_EQ(OriginalField(out), input.size());
        EXPECT_EQ(out[r.total - 1], 0x00);
        for (std::size_t i = r.total; i < out.size(); ++i) ASSERT_EQ(out[i], 0xEE) << i;
        EXPECT_EQ(r.stopped, stopped);
        if (!r.stopped) {
            EXPECT_EQ(Decode(Bytes(out.begin(), out.begin() + r.total)), input);
        }
    }
    Bytes out(108);
    EXPECT_THROW(encoder.CompressModule(SyntheticText(100, 1), out), std::invalid_argument);
}

// Tokens of the stream, as our decoder reads them back: lazy matching, the newest of
// equally long matches, 256-byte matches, and the cut to the remaining input.
TEST(LzhEncoder, ChoosesTokensByTheMatchRules) {
    auto lit = [](char c) { return Lit(static_cast<std::uint8_t>(c)); };
    const Lh5Token lit_a = lit('a');
    const auto match = Match;
    struct Case {
        const char* name;
        Bytes input;
        std::vector<Lh5Token> tokens;
    };
    std::vector<Case> cases = {
        // At the second "abc" a 3-byte match; one position later "bcdefg" matches 6
        // bytes, so the 'a' goes out as a literal.
        {"lazy matching",
         FromString("abcXbcdefgYabcdefgZ"),
         {lit_a, lit('b'), lit('c'), lit('X'), lit('b'), lit('c'), lit('d'), lit('e'), lit('f'),
          lit('g'), lit('Y'), lit_a, match(6, 8), lit('Z')}},
        // Of two equally long matches the newer one is taken.
        {"newest match",
         FromString("abcXabcYabcZ"),
         {lit_a, lit('b'), lit('c'), lit('X'), match(3, 4), lit('Y'), match(3, 4), lit('Z')}},
        // 1000 zeros: a literal, then 256-byte matches one byte back, the last one cut
        // to the input.
        {"long runs",
         Filled(1000, 0),
         {lit('\0'), match(256, 1), match(256, 1), match(256, 1), match(231, 1)}},
        // A match of 3 is sent as a match, one of 2 is not.
        {"shortest match",
         FromString("xyzQxyzRxyS"),
         {lit('x'), lit('y'), lit('z'), lit('Q'), match(3, 4), lit('R'), lit('x'), lit('y'),
          lit('S')}},
    };
    // Short streams do not get past the output bound, so each input follows a run of
    // 300 dots that is sent as a literal and two matches.
    const std::vector<Lh5Token> prefix = {lit('.'), match(256, 1), match(43, 1)};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes input(300 + c.input.size(), '.');
        std::copy(c.input.begin(), c.input.end(), input.begin() + 300);
        std::vector<Lh5Token> expected(prefix.size() + c.tokens.size());
        std::copy(prefix.begin(), prefix.end(), expected.begin());
        std::copy(c.tokens.begin(), c.tokens.end(), expected.begin() + prefix.size());
        Lh5Trace trace;
        EXPECT_EQ(Decode(CompressFresh(input), &trace), input);
        EXPECT_EQ(trace.tokens, expected);
    }
}

// A block is cut only when a group of eight starts with the buffer filled to its size
// - 24 or more: every block but the last holds whole groups, fills the buffer to at
// least size - 24 bytes, and was still below that before its last group. A smaller
// token buffer (as after failed allocations) gives more, shorter blocks.
TEST(LzhEncoder, CutsBlocksAtGroupsOfEight) {
    const Bytes input = SyntheticBinary(120000, 5);
    std::size_t previous_blocks = 0;
    for (std::size_t limit : {std::size_t(-1), std::size_t(9000), std::size_t(4131)}) {
        Encoder encoder(EncoderLimits{limit, false});
        Lh5Trace trace;
        EXPECT_EQ(Decode(Compress(encoder, input), &trace), input);
        ASSERT_GT(trace.block_token_counts.size(), previous_blocks);
        previous_blocks = trace.block_token_counts.size();
        const std::size_t cut_at = encoder.TokenBufferSize() - 24;
        std::size_t next_token = 0;
        for (std::size_t b = 0; b + 1 < trace.block_token_counts.size(); ++b) {
            const std::uint32_t count = trace.block_token_counts[b];
            EXPECT_EQ(count % 8, 0u) << "block " << b;
            // Buffer bytes: a flag byte per group, 1 per literal, 3 per match.
            std::size_t fill = 0;
            std::size_t before_last_group = 0;
            for (std::uint32_t t = 0; t < count; ++t) {
                if (t % 8 == 0) before_last_group = fill++;
                fill += trace.tokens[next_token++].length == 0 ? 1 : 3;
            }
            EXPECT_GE(fill, cut_at) << "block " << b;
            EXPECT_LT(before_last_group, cut_at) << "block " << b;
        }
    }
}

// Random bytes in which no three-byte string occurs twice: every token is a literal.
Bytes WithoutRepeats(std::size_t size, std::uint64_t seed) {
    Rng rng(seed);
    Bytes out;
    std::unordered_set<std::uint32_t> seen;
    while (out.size() < size) {
        const auto c = static_cast<std::uint8_t>(rng.Next());
        if (out.size() >= 2 && !seen.insert(out[out.size() - 2] << 16 | out.back() << 8 | c).second)
            continue;
        out.push_back(c);
    }
    return out;
}

// A match token refused because the block cut before it stopped the stream still
// advances over its bytes, and those advances can refill the window: the original
// size then counts input that the stream never covers. Here the token buffer (5679
// bytes) holds 5032 literals per block, the 13th cut comes at the copy of 256 bytes
// placed at offset 13 x 5032 = 65416, the stream hits its bound there with 8448 + 7 x
// 8192 bytes consumed, and the copy's advances pass position 65536 and read 8192 more.
TEST(LzhEncoder, RefusedMatchStillAdvancesOverItsBytes) {
    constexpr std::size_t kCopyAt = 13 * 5032;
    const Bytes base = WithoutRepeats(8 * 8192 + 20000, 813);
    Bytes input(base.begin(), base.begin() + kCopyAt);
    for (std::size_t i = 0; i < 256; ++i) input.push_back(input[kCopyAt - 5000 + i]);
    input.insert(input.end(), base.begin() + kCopyAt, base.end());
    Encoder encoder(EncoderLimits{5679, false});
    CompressResult r;
    const Bytes out = Compress(encoder, input, &r);
    EXPECT_TRUE(r.stopped);
    EXPECT_EQ(r.total, 8448u + 7 * 8192 + 9);
    EXPECT_EQ(r.consumed, 8448u + 8 * 8192);
    EXPECT_EQ(OriginalField(out), r.consumed);
}

// 16384 bytes first, then nine tenths (whole-number steps) while at least 4096.
TEST(LzhEncoder, TokenBufferShrinksInFixedStepsThenOutOfMemory) {
    struct Case {
        std::size_t limit;
        std::size_t size;  // 0 = out of memory
    };
    const Case cases[] = {{16384, 16384}, {16383, 14742}, {14742, 14742}, {10000, 9657},
                          {5000, 4590},   {4131, 4131},   {4130, 0},      {100, 0}};
    for (const auto& c : cases) {
        Encoder encoder(EncoderLimits{c.limit, false});
        EXPECT_EQ(encoder.TokenBufferSize(), 0u);
        const Bytes input = SyntheticText(3000, 9);
        if (c.size == 0) {
            Bytes out(input.size() + 9);
            EXPECT_THROW(encoder.CompressModule(input, out), OutOfMemory) << c.limit;
            continue;
        }
        EXPECT_EQ(Decode(Compress(encoder, input)), input);
        EXPECT_EQ(encoder.TokenBufferSize(), c.size) << c.limit;
    }
    // Working storage that cannot be had is out of memory too.
    Encoder encoder(EncoderLimits{std::size_t(-1), true});
    Bytes out(20);
    try {
        encoder.CompressModule(Bytes(5, 1), out);
        ADD_FAILURE() << "no OutOfMemory";
    } catch (const OutOfMemory& e) {
        EXPECT_STREQ(e.what(), "Out of memory.");
    }
}

// The window is not cleared between runs: what an earlier run left beyond the end of
// a later input can change the later result's bytes, but not what it decodes to.
TEST(LzhEncoder, WindowLeftoversChangeBytesButNotContent) {
    const Bytes first = SyntheticText(20000, 1);
    Bytes second(first.begin() + 3256, first.begin() + 3256 + 128);
    second[64] ^= 1;
    Encoder reused;
    Compress(reused, first);
    const Bytes after_first = Compress(reused, second);
    const Bytes fresh = CompressFresh(second);
    EXPECT_NE(after_first, fresh);
    EXPECT_EQ(after_first.size(), 88u);
    EXPECT_EQ(Fnv1a(after_first), 0x17D67803u);
    EXPECT_EQ(Fnv1a(fresh), 0x51BA769Fu);
    EXPECT_EQ(Decode(after_first), second);
    EXPECT_EQ(Decode(fresh), second);
    // And a fresh encoder is deterministic.
    EXPECT_EQ(CompressFresh(second), fresh);
}

// Exact results for a fixed synthetic corpus: any change in the encoder's choices
// changes a size or a hash here.
TEST(LzhEncoder, PinnedResultsOfAFixedCorpus) {
    struct Case {
        const char* name;
        std::function<Bytes()> make;
        std::uint32_t total;
        std::uint32_t consumed;
        std::uint32_t fnv;
    };
    const Case cases[] = {
        {"empty", [] { return Bytes{}; }, 9, 0, 0xB1E2C8A4},
        {"one byte", [] { return Bytes{0x41}; }, 10, 1, 0xB9431DCE},
        {"abc", [] { return FromString("abc"); }, 12, 3, 0xBEAD5577},
        {"text 400", [] { return SyntheticText(400, 11); }, 179, 400, 0x0651CC50},
        {"text 8191", [] { return SyntheticText(8191, 12); }, 2014, 8191, 0xD593439A},
        {"text 8192", [] { return SyntheticText(8192, 13); }, 1975, 8192, 0x823F5C84},
        {"text 8448", [] { return SyntheticText(8448, 14); }, 2038, 8448, 0xE15D4543},
        {"text 16384", [] { return SyntheticText(16384, 15); }, 3667, 16384, 0x87D5FAD0},
        {"text 16640", [] { return SyntheticText(16640, 16); }, 3647, 16640, 0x8828323C},
        {"binary 30000", [] { return SyntheticBinary(30000, 17); }, 10321, 30000, 0x13E1C043},
        {"binary 100000", [] { return SyntheticBinary(100000, 18); }, 35701, 100000, 0xBE377E3C},
        {"zeros 4096", [] { return Filled(4096, 0); }, 21, 4096, 0xA693F2F1},
        {"ff 70000", [] { return Filled(70000, 0xFF); }, 55, 70000, 0x2F71249B},
        {"pattern 50000", [] { return Repeated("0123456789abcdefghijklmnopqrstuvwxyz!", 50000); },
         209, 50000, 0xC8A31672},
        {"random 8448", [] { return RandomBytes(8448, 19); }, 8457, 8448, 0xE6C9969B},
        {"random 40000", [] { return RandomBytes(40000, 20); }, 40009, 40000, 0xA277820D},
        // Large inputs: the window slides many times and every path of the tree is used.
        {"text 300000", [] { return SyntheticText(300000, 22); }, 60096, 300000, 0x570C66AB},
        {"exe mix 400000", [] { return ExecutableMix(400000, 23); }, 115615, 400000, 0x9786015E},
        {"binary 250000", [] { return SyntheticBinary(250000, 24); }, 88953, 250000, 0xA23F700E},
        {"zeros 300000", [] { return Filled(300000, 0); }, 166, 300000, 0x87F86793},
    };
    // With a token buffer of 4590 bytes the blocks are cut elsewhere.
    {
        Encoder small(EncoderLimits{5000, false});
        const Bytes out = Compress(small, SyntheticBinary(60000, 21));
        EXPECT_EQ(out.size(), 20881u);
        EXPECT_EQ(Fnv1a(out), 0x5897C0ACu);
    }
    // One encoder for a sequence of large inputs: the second run starts on the window
    // the first one left.
    {
        Encoder reused;
        Compress(reused, ExecutableMix(200000, 25));
        const Bytes out = Compress(reused, SyntheticText(150001, 26));
        EXPECT_EQ(out.size(), 30157u);
        EXPECT_EQ(Fnv1a(out), 0xF01617BBu);
    }
    std::string table;
    for (const auto& c : cases) {
        CompressResult r;
        const Bytes out = CompressFresh(c.make(), &r);
        const std::uint32_t fnv = Fnv1a(out);
        EXPECT_EQ(r.total, c.total) << c.name;
        EXPECT_EQ(r.consumed, c.consumed) << c.name;
        EXPECT_EQ(fnv, c.fnv) << c.name;
        table += StrFormat("{\"%s\", ..., %u, %u, 0x%08X},\n", c.name, r.total, r.consumed, fnv);
    }
    if (HasFailure()) std::printf("%s", table.c_str());
}

}  // namespace
}  // namespace fwforge::lzh
