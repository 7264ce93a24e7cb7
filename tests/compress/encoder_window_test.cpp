// A compression run's result depends on its input and on the window bytes that
// StaleReadRange names, nothing else of the window; ReplayRun leaves a window as the
// run leaves it. Reuse of results and compression on other threads rest on both.

#include <gtest/gtest.h>

#include <vector>

#include "compress/encoder_window.h"
#include "compress/module_compressor.h"
#include "support/random_script.h"

namespace fwforge::lzh {
namespace {

using fwforge::testing::Random;

std::vector<std::uint8_t> Input(std::size_t size, int kind, Random& r) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        switch (kind) {
            case 0: bytes[i] = static_cast<std::uint8_t>(r.Next()); break;
            case 1: bytes[i] = static_cast<std::uint8_t>("abcab"[r.Below(5)]); break;
            default: bytes[i] = static_cast<std::uint8_t>(i % 7 == 0 ? r.Below(3) : 0); break;
        }
    }
    return bytes;
}

void Scramble(std::span<std::uint8_t> window, Random& r, int kind) {
    // Window bytes that match the input's alphabet make long comparisons reach far.
    for (std::uint8_t& b : window) {
        b = static_cast<std::uint8_t>(kind == 0 ? r.Next() : "abc\0"[r.Below(4)]);
    }
}

TEST(EncoderWindow, RunsDependOnlyOnTheirInputAndTheStaleBytes) {
    const std::size_t sizes[] = {0,    1,    2,    3,     100,   255,   256,   257,  4000,
                                 8191, 8192, 8193, 8300,  8447,  8448,  8449,  8703, 16383,
                                 16384, 16385, 16639, 16640, 16641, 24576, 30000};
    Random r(7);
    for (const std::size_t size : sizes) {
        for (int kind = 0; kind < 3; ++kind) {
            SCOPED_TRACE(::testing::Message() << "size " << size << ", kind " << kind);
            const std::vector<std::uint8_t> input = Input(size, kind, r);
            Encoder a, b;
            Scramble(a.Window(), r, kind);
            Scramble(b.Window(), r, kind);
            // A first run, so that the second starts from a window an earlier run left.
            const std::vector<std::uint8_t> earlier = Input(r.Below(9000), kind, r);
            std::vector<std::uint8_t> scratch(earlier.size() + 9);
            a.CompressModule(earlier, scratch);
            b.CompressModule(earlier, scratch);

            const WindowRange stale = StaleReadRange(size);
            std::copy_n(a.Window().begin() + stale.begin, stale.size(),
                        b.Window().begin() + stale.begin);
            std::vector<std::uint8_t> start(a.Window().begin(), a.Window().end());

            std::vector<std::uint8_t> out_a(size + 9, 0xEE), out_b(size + 9, 0xEE);
            const CompressResult ra = a.CompressModule(input, out_a);
            const CompressResult rb = b.CompressModule(input, out_b);
            EXPECT_EQ(out_a, out_b);
            EXPECT_EQ(ra.total, rb.total);
            EXPECT_EQ(ra.slides, rb.slides);
            // The run writes its total and nothing past it.
            EXPECT_TRUE(std::all_of(out_a.begin() + ra.total, out_a.end(),
                                    [](std::uint8_t x) { return x == 0xEE; }));
            if (!ra.stopped) {
                EXPECT_EQ(ra.slides, FullRunSlides(size));
            }

            ReplayRun(start, input, ra.slides);
            EXPECT_TRUE(std::equal(start.begin(), start.end(), a.Window().begin()));
        }
    }
}

}  // namespace
}  // namespace fwforge::lzh
