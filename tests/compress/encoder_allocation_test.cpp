// Each allocation of the encoder failing in turn: the token buffer is tried at 16384
// bytes and then at nine tenths of the size before (whole-number division) while that is
// at least 4096, and the stream is the one an encoder given that size outright writes;
// when no size can be had, or the working storage cannot, the encoder stops with
// "Out of memory.".

#include <gtest/gtest.h>

#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/lzh_encoder.h"
#include "compress/module_compressor.h"
#include "support/test_files.h"

namespace fwforge::lzh {
namespace {

std::vector<std::size_t> TokenBufferSizes() {
    std::vector<std::size_t> sizes;
    for (std::size_t size = 16384; size >= 4096; size = size / 10 * 9) sizes.push_back(size);
    return sizes;
}

// Text-like input long enough for several blocks of the largest token buffer.
std::vector<std::uint8_t> Input() {
    std::vector<std::uint8_t> data = testing::RandomBytes(90000, 7);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = std::uint8_t('a' + data[i] % 12);
    return data;
}

std::vector<std::uint8_t> Compress(Encoder& encoder, std::span<const std::uint8_t> input) {
    std::vector<std::uint8_t> out(input.size() + kCompressedOverhead);
    out.resize(encoder.CompressModule(input, out).total);
    return out;
}

TEST(EncoderAllocation, SmallerTokenBuffersAreTriedAsSpecifiedAndOutOfMemoryEndsTheTries) {
    const std::vector<std::size_t> sizes = TokenBufferSizes();
    ASSERT_EQ(sizes.size(), 14u);
    EXPECT_EQ(sizes[1], 14742u);
    EXPECT_EQ(sizes.back(), 4131u);
    const std::vector<std::uint8_t> input = Input();
    const std::vector<std::uint8_t> small(input.begin(), input.begin() + 600);
    Encoder plain;
    const std::vector<std::uint8_t> small_plain = Compress(plain, small);

    for (std::size_t failures = 0; failures <= sizes.size(); ++failures) {
        std::vector<std::size_t> asked;
        EncoderLimits limits;
        limits.allocate = [&](EncoderAllocation what, std::size_t bytes) {
            if (what != EncoderAllocation::TokenBuffer) return true;
            asked.push_back(bytes);
            return asked.size() > failures;
        };
        Encoder encoder(limits);
        if (failures == sizes.size()) {
            try {
                Compress(encoder, input);
                ADD_FAILURE() << "no token buffer could be had, yet the run went on";
            } catch (const OutOfMemory& e) {
                EXPECT_STREQ(e.what(), "Out of memory.");
            }
            EXPECT_EQ(asked, sizes);
            continue;
        }
        // A module that fits one block of the smallest buffer comes out as always.
        EXPECT_EQ(Compress(encoder, small), small_plain) << failures;
        EXPECT_EQ(encoder.TokenBufferSize(), sizes[failures]) << failures;
        EXPECT_EQ(asked, std::vector<std::size_t>(sizes.begin(), sizes.begin() + failures + 1));
        // A longer one: the same bytes as an encoder that may have no larger buffer, and
        // they decode.
        const std::vector<std::uint8_t> out = Compress(encoder, input);
        EncoderLimits limited;
        limited.token_buffer_limit = sizes[failures];
        Encoder reference(limited);
        Compress(reference, small);
        EXPECT_EQ(out, Compress(reference, input)) << failures;
        EXPECT_EQ(DecodeCompressedData(out, nullptr), input) << failures;
    }
}

TEST(EncoderAllocation, WorkingStorageThatCannotBeHadIsOutOfMemory) {
    std::vector<EncoderAllocation> asked;
    EncoderLimits limits;
    limits.allocate = [&](EncoderAllocation what, std::size_t bytes) {
        asked.push_back(what);
        EXPECT_GT(bytes, 0u);
        return what != EncoderAllocation::WorkingStorage;
    };
    Encoder encoder(limits);
    const std::vector<std::uint8_t> input = Input();
    EXPECT_THROW(Compress(encoder, input), OutOfMemory);
    EXPECT_EQ(asked, std::vector<EncoderAllocation>{EncoderAllocation::WorkingStorage});
}

}  // namespace
}  // namespace fwforge::lzh
