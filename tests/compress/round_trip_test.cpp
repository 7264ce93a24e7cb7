// Compress and decode again, over a varied corpus: every stream that the output bound
// did not cut off decodes to its input, with a fresh encoder and with one encoder
// reused for the whole corpus, one compression after another (its window keeps what
// earlier runs left).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "compress/compress_test_support.h"
#include "compress/lzh_decoder.h"
#include "compress/module_compressor.h"

namespace fwforge::lzh {
namespace {

using namespace testing;

struct Sample {
    std::string name;
    Bytes data;
};

// Mostly text with some noise mixed in: compresses, but not uniformly.
Bytes MixedText(std::size_t size, std::uint64_t seed) {
    Bytes text = SyntheticText(size, seed);
    Rng rng(seed + 100);
    for (std::size_t i = 0; i + 64 < size; i += 1 + rng.Below(2000)) {
        for (std::size_t k = 0; k < 40; ++k) text[i + k] = static_cast<std::uint8_t>(rng.Next());
    }
    return text;
}

// Random bytes from a small alphabet: short repeats everywhere.
Bytes SmallAlphabet(std::size_t size, std::uint64_t seed, std::uint32_t letters) {
    Rng rng(seed);
    Bytes out(size);
    for (auto& b : out) b = static_cast<std::uint8_t>('a' + rng.Below(letters));
    return out;
}

// A random block of `period` bytes, repeated up to `size` bytes.
Bytes Periodic(std::size_t period, std::uint64_t seed, std::size_t size) {
    const Bytes block = RandomBytes(period, seed);
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) out[i] = block[i % period];
    return out;
}

std::vector<Sample> Corpus() {
    std::vector<Sample> corpus;
    // Sizes around the first fill (8448), the window (8192) and the slide (16384).
    for (std::size_t size : {8191u, 8192u, 8193u, 8447u, 8448u, 8449u, 16383u, 16384u, 16385u,
                             16639u, 16640u, 16641u, 24833u}) {
        corpus.push_back({"text " + std::to_string(size), SyntheticText(size, size)});
    }
    corpus.push_back({"mixed 200000", MixedText(200000, 1)});
    corpus.push_back({"binary 150000", SyntheticBinary(150000, 2)});
    corpus.push_back({"exe mix 300000", ExecutableMix(300000, 3)});
    corpus.push_back({"zeros 200000", Filled(200000, 0)});
    corpus.push_back({"ff 70001", Filled(70001, 0xFF)});
    corpus.push_back({"4 letters 100000", SmallAlphabet(100000, 3, 4)});
    corpus.push_back({"2 letters 30000", SmallAlphabet(30000, 4, 2)});
    // Random blocks repeated at the longest distances the window allows, and beyond.
    corpus.push_back({"period 8191", Periodic(8191, 5, 40000)});
    corpus.push_back({"period 8192", Periodic(8192, 6, 40000)});
    corpus.push_back({"period 300", Periodic(300, 7, 30000)});
    for (auto& [name, data] : SystemFiles("/usr/bin", 3, 30000, 120000)) {
        corpus.push_back({name, std::move(data)});
    }
    return corpus;
}

void CheckRoundTrip(Encoder& encoder, const Sample& sample, int* decoded_count) {
    CompressResult r;
    const Bytes out = Compress(encoder, sample.data, &r);
    ASSERT_LE(r.consumed, sample.data.size());
    ASSERT_LE(r.total, r.consumed + 9);
    if (r.stopped) return;  // cut off: nothing to decode
    ASSERT_EQ(r.consumed, sample.data.size());
    std::string error;
    const auto decoded = DecodeCompressedData(out, &error);
    ASSERT_TRUE(decoded) << error;
    ASSERT_TRUE(*decoded == sample.data) << "decoded bytes differ";
    ++*decoded_count;
}

TEST(RoundTrip, CorpusDecodesToItsInput) {
    const std::vector<Sample> corpus = Corpus();
    Encoder reused;
    int decoded = 0;
    for (const auto& sample : corpus) {
        SCOPED_TRACE(sample.name);
        Encoder fresh;
        CheckRoundTrip(fresh, sample, &decoded);
        CheckRoundTrip(reused, sample, &decoded);
    }
    // All synthetic samples compress; executables nearly always do.
    EXPECT_GE(decoded, 2 * 22);
}

}  // namespace
}  // namespace fwforge::lzh
