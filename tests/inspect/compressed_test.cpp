// Compressed modules in images built byte by byte with our encoder: listed with their
// original size, decoded by verify and extract, and a cut-off stream reported.

#include <gtest/gtest.h>

#include "compress/compress_test_support.h"
#include "inspect/extract.h"
#include "inspect/module_data.h"
#include "inspect/test_image.h"
#include "platform/text_format.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using lzh::testing::CompressFresh;
using testing::BuildTestImage;
using testing::TestLayout;
using testing::TestModule;

// Text-like data that compresses well.
std::vector<std::uint8_t> Text(std::size_t n) { return lzh::testing::SyntheticText(n, n); }

TestModule Compressed(std::uint8_t id, const std::vector<std::uint8_t>& original) {
    TestModule m;
    m.id = id;
    m.attributes = 0x00;
    m.data = CompressFresh(original);
    return m;
}

TEST(InspectCompressed, DecodedByVerifyAndExtract) {
    const auto text = Text(0x3000);
    const auto zeros = std::vector<std::uint8_t>(0x2000, 0);
    TestLayout l;
    l.modules = {Compressed(0x11, text), Compressed(0x12, zeros)};
    l.modules[1].pieces = 2;  // a compressed module split in two
    const auto img = BuildTestImage(l);
    const ImageModel model = ReadImage(img.bytes, {});
    const VerifyReport report = Verify(img.bytes, model);
    EXPECT_TRUE(report.Clean()) << VerifyText(report);
    EXPECT_TRUE(report.notes.empty() || report.notes[0].find("not decoded") == std::string::npos);

    const ExtractPlan plan = PlanExtract(img.bytes, model);
    EXPECT_TRUE(plan.problems.empty());
    const auto main = model.ModulesIn(ModuleArea::Main);
    for (std::size_t i = 0; i < 2; ++i) {
        const std::string name = ModuleFileName(model, *main[i], ".bin");
        auto it = std::find_if(plan.files.begin(), plan.files.end(),
                               [&](const ExtractedFile& f) { return f.name == name; });
        ASSERT_NE(it, plan.files.end()) << name;
        EXPECT_EQ(it->bytes, i == 0 ? text : zeros) << name;
    }
    const std::string list = ListText(img.bytes, model);
    EXPECT_NE(list.find("compressed"), std::string::npos);
    EXPECT_NE(list.find(StrFormat(" %-9x ", 0x3000)), std::string::npos) << list;
}

TEST(InspectCompressed, CutOffAndDamagedStreamsAreNotDecodable) {
    // Random bytes do not compress: the encoder's output bound stops the stream.
    const auto noise = fwforge::testing::RandomBytes(0x800, 99);
    TestLayout l;
    l.modules = {Compressed(0x11, Text(0x1000)), Compressed(0x12, noise)};
    auto img = BuildTestImage(l);
    VerifyReport report = Verify(img.bytes, ReadImage(img.bytes, {}));
    ASSERT_EQ(report.problems.size(), 1u) << VerifyText(report);
    EXPECT_EQ(report.problems[0].where.find("module #1 (id 12)"), 0u);
    EXPECT_NE(report.problems[0].what.find("cut off by the encoder's output bound"),
              std::string::npos)
        << report.problems[0].what;

    // A damaged stream with its checksum made good again is still found.
    auto& bytes = img.bytes;
    const std::uint32_t h = img.module_headers[0];
    bytes[h + 20 + 12] ^= 0x55;
    store_le32(&bytes[h + 4], 0);
    store_le32(&bytes[h + 4], 0u - DwordSum(bytes, h, 20 + load_le32(&bytes[h])));
    report = Verify(bytes, ReadImage(bytes, {}));
    bool named = false;
    for (const Finding& f : report.problems) {
        named |= f.where.starts_with("module #0 (id 11)") &&
                 f.what.starts_with("compressed data not decodable");
    }
    EXPECT_TRUE(named) << VerifyText(report);
}

TEST(InspectCompressed, StoredDataHeadersThatCannotHold) {
    const auto good = CompressFresh(Text(0x400));
    auto with = [&](std::size_t at, std::uint32_t v) {
        auto bytes = good;
        store_le32(&bytes[at], v);
        return bytes;
    };
    auto unclosed = good;
    unclosed.back() = 0x7E;
    const struct {
        const char* what;
        std::vector<std::uint8_t> stored;
        DecodeStatus status;
        const char* message;
    } cases[] = {
        {"shorter than the frame", {0x09, 0, 0, 0, 0}, DecodeStatus::BadHeader,
         "5 bytes are too few for compressed data"},
        {"total beyond the stored bytes", with(0, 0x10000), DecodeStatus::BadHeader,
         "total size 10000 does not fit"},
        {"total below the frame", with(0, 3), DecodeStatus::BadHeader, "total size 3 does not fit"},
        {"forged original size", with(4, 0x40000000), DecodeStatus::Malformed,
         "original size 40000000 is beyond what is decoded here"},
        {"closing byte not zero", unclosed, DecodeStatus::Malformed,
         "the closing byte is 7e, not 00"},
    };
    for (const auto& c : cases) {
        const DecodeResult r = DecodeStoredData(c.stored);
        EXPECT_EQ(r.status, c.status) << c.what;
        EXPECT_EQ(r.message.find(c.message), 0u) << c.what << ": " << r.message;
    }
    EXPECT_EQ(DecodeStoredData(good).status, DecodeStatus::Ok);
}

}  // namespace
}  // namespace fwforge::inspect
