// The build's compression gives the bytes one encoder gives run after run, and computes
// each distinct run once: when a module is compressed to size it and again to place it,
// and when workers compute announced runs ahead.

#include <gtest/gtest.h>

#include <vector>

#include "compress/build_compressor.h"
#include "support/random_script.h"

namespace fwforge::lzh {
namespace {

using fwforge::testing::Random;

using Bytes = std::vector<std::uint8_t>;

// Inputs on both sides of every size that decides what a run reads of the window.
std::vector<Bytes> Inputs() {
    Random r(11);
    std::vector<Bytes> inputs;
    for (const std::size_t size : {700u, 8447u, 9000u, 300u, 20000u, 5000u, 5000u}) {
        Bytes bytes(size);
        for (std::uint8_t& b : bytes) b = static_cast<std::uint8_t>("fwforge "[r.Below(8)]);
        inputs.push_back(bytes);
    }
    inputs.back() = inputs[inputs.size() - 2];  // the same input twice in a row as well
    return inputs;
}

Bytes Compress(auto& compressor, const Bytes& input) {
    Bytes out(input.size() + 9, 0xEE);
    out.resize(compressor.CompressModule(input, out).total);
    return out;
}

TEST(BuildCompressor, GivesOneEncodersBytesAndComputesEachRunOnce) {
    const std::vector<Bytes> inputs = Inputs();
    // Each input twice, as a build sizes a module and then places it.
    Encoder one;
    std::vector<Bytes> expected;
    for (const Bytes& input : inputs) {
        for (int use = 0; use < 2; ++use) expected.push_back(Compress(one, input));
    }

    struct Way {
        unsigned threads;
        bool reuse;
        unsigned computed;  // runs computed for the 14 calls
    };
    // Seven runs: a result is forgotten after the uses it was announced or kept for, so
    // the repeated input is a run of its own.
    for (const Way way : {Way{1, false, 14}, Way{1, true, 7}, Way{2, true, 7}, Way{3, true, 7}}) {
        SCOPED_TRACE(::testing::Message() << way.threads << " threads, reuse " << way.reuse);
        BuildCompressor compressor({way.threads, way.reuse, {}});
        std::vector<BuildCompressor::Expected> announced;
        for (const Bytes& input : inputs) {
            announced.push_back({[input] { return std::optional<Bytes>(input); }, 2});
        }
        compressor.Expect(std::move(announced));
        std::vector<Bytes> got;
        for (const Bytes& input : inputs) {
            for (int use = 0; use < 2; ++use) got.push_back(Compress(compressor, input));
        }
        EXPECT_EQ(got, expected);
        EXPECT_EQ(compressor.RunsComputed(), way.computed);
    }
}

// Gap placement sizes every module in script order and places them in another order:
// announced again, a long input gives what its sizing gave, and a short one, which reads
// what the run before it left in the window, is computed ahead from that window.
TEST(BuildCompressor, ComputesOnlyShortRunsAgainInTheOrderAnnouncedNext) {
    const std::vector<Bytes> inputs = Inputs();
    std::vector<std::size_t> order(inputs.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = (i * 3 + 2) % order.size();
    Encoder one;
    std::vector<Bytes> expected;
    for (const Bytes& input : inputs) expected.push_back(Compress(one, input));
    for (const std::size_t i : order) expected.push_back(Compress(one, inputs[i]));

    for (const std::size_t ahead : {std::size_t{1}, std::size_t{8} << 20}) {
        SCOPED_TRACE(::testing::Message() << ahead << " bytes ahead");
        BuildCompressor compressor({2, true, {}, ahead});
        std::vector<BuildCompressor::Expected> sizing, placing;
        for (const Bytes& input : inputs) {
            sizing.push_back({[input] { return std::optional<Bytes>(input); }, 2});
        }
        for (const std::size_t i : order) {
            placing.push_back({[input = inputs[i]] { return std::optional<Bytes>(input); }, 1, true});
        }
        compressor.Expect(std::move(sizing));
        std::vector<Bytes> got;
        for (const Bytes& input : inputs) got.push_back(Compress(compressor, input));
        compressor.Expect(std::move(placing));
        for (const std::size_t i : order) got.push_back(Compress(compressor, inputs[i]));
        EXPECT_EQ(got, expected);
        // Seven runs to size; of the placing runs, the two long inputs are not computed
        // again, and the repeated short input at most once more.
        EXPECT_LE(compressor.RunsComputed(), 7u + 5u);
        EXPECT_GE(compressor.RunsComputed(), 7u);
    }
}

}  // namespace
}  // namespace fwforge::lzh
