// Data that does not compress leaves a stream cut off at the encoder's output bound; a
// stand-in found for it is cut off at the very same bytes by an encoder of its own.

#include "compress/cut_off_stand_in.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "compress/module_compressor.h"
#include "support/random_script.h"

namespace fwforge::lzh {
namespace {

TEST(CutOffStandIn, IsCutOffAtTheSameBytesWhereItIsFound) {
    testing::Random r(7);
    int found = 0, tried = 0;
    for (int i = 0; i < 24; ++i) {
        std::vector<std::uint8_t> data(300 + r.Below(8000));
        for (std::uint8_t& b : data) b = static_cast<std::uint8_t>(r.Next());
        std::vector<std::uint8_t> out(data.size() + 9);
        const CompressResult cut = Encoder().CompressModule(data, out);
        ASSERT_TRUE(cut.stopped);
        out.resize(cut.total);
        ++tried;
        const auto standin = CutOffStandIn(out);
        if (!standin) continue;
        ++found;
        ASSERT_EQ(standin->size(), data.size());
        EXPECT_NE(*standin, data);  // the lost end is not guessed, only its code lengths
        std::vector<std::uint8_t> again(data.size() + 9);
        const CompressResult result = Encoder().CompressModule(*standin, again);
        EXPECT_TRUE(result.stopped);
        again.resize(result.total);
        EXPECT_EQ(again, out);
    }
    EXPECT_GE(found * 4, tried * 3);
    // Data that compresses, and compressed data cut off before its code tables, have none.
    std::vector<std::uint8_t> text(2000, 'a'), out(2009);
    out.resize(Encoder().CompressModule(text, out).total);
    EXPECT_FALSE(CutOffStandIn(out));
    const std::uint8_t tiny[] = {1, 2};
    out.assign(11, 0);
    out.resize(Encoder().CompressModule(tiny, out).total);
    EXPECT_FALSE(CutOffStandIn(out));
}

}  // namespace
}  // namespace fwforge::lzh
