#include "compress/lzh_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "compress/compress_test_support.h"
#include "platform/byte_order.h"

namespace fwforge::lzh {
namespace {

using namespace testing;

TEST(LzhDecoder, RejectsMalformedFramesWithAReason) {
    const Bytes good = CompressFresh(SyntheticText(3000, 1));
    auto with = [&](auto change) {
        Bytes data = good;
        change(data);
        return data;
    };
    struct Case {
        const char* name;
        Bytes data;
        const char* error_part;
    };
    const Case cases[] = {
        {"shorter than the frame", Bytes(8, 0), "shorter than its 9-byte frame"},
        {"total below 9", with([](Bytes& d) { store_le32(d.data(), 8); }),
         "total size 8 is outside"},
        {"total beyond the data", with([](Bytes& d) { store_le32(d.data(), 100000); }),
         "total size 100000"},
        {"closing byte", with([](Bytes& d) { d.back() = 0x7F; }), "closing byte"},
        {"original size too large", with([](Bytes& d) { store_le32(d.data() + 4, 3001); }),
         "ends while reading"},
        {"original size too small", with([](Bytes& d) { store_le32(d.data() + 4, 2999); }),
         "original size"},
        {"trailing stream bytes", with([](Bytes& d) {
             d.insert(d.end() - 1, 0);
             store_le32(d.data(), static_cast<std::uint32_t>(d.size()));
         }),
         "after its end"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(DecodeCompressedData(c.data, &error)) << c.name;
        EXPECT_NE(error.find(c.error_part), std::string::npos) << c.name << ": " << error;
    }
    std::string error;
    EXPECT_TRUE(DecodeCompressedData(good, &error)) << error;
}

// Every cut and every single-bit flip of real streams either decodes to the right
// size or is rejected; under the sanitizers this also proves that nothing is read or
// written out of bounds.
TEST(LzhDecoder, TruncatedAndBitFlippedStreamsNeverCrash) {
    const std::vector<Bytes> inputs = {SyntheticText(1500, 2), SyntheticBinary(2000, 3),
                                       Filled(3000, 7)};
    for (const auto& input : inputs) {
        const Bytes data = CompressFresh(input);
        const std::span<const std::uint8_t> stream(data.data() + 8, data.size() - 9);
        for (std::size_t cut = 0; cut < stream.size(); ++cut) {
            std::string error;
            EXPECT_FALSE(DecodeLh5(stream.first(cut), input.size(), &error)) << cut;
            EXPECT_FALSE(error.empty());
        }
        int rejected = 0;
        // Every bit of the block header and code tables, then every seventh bit.
        for (std::size_t bit = 0; bit < stream.size() * 8; bit += bit < 512 ? 1 : 7) {
            Bytes flipped(stream.begin(), stream.end());
            flipped[bit / 8] ^= static_cast<std::uint8_t>(0x80 >> (bit % 8));
            std::string error;
            const auto decoded = DecodeLh5(flipped, input.size(), &error);
            if (decoded) {
                EXPECT_EQ(decoded->size(), input.size());
            } else {
                ++rejected;
            }
        }
        EXPECT_GT(rejected, 0);
    }
}

TEST(LzhDecoder, RandomGarbageIsRejectedSafely) {
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        Rng rng(seed);
        const Bytes garbage = RandomBytes(1 + rng.Below(400), seed);
        std::string error;
        const auto decoded = DecodeLh5(garbage, rng.Below(100000), &error);
        if (!decoded) {
            EXPECT_FALSE(error.empty());
        }
    }
}

}  // namespace
}  // namespace fwforge::lzh
