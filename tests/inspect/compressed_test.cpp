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
using testing::Inspect;
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

// An image as built whose compressed modules do not all unpack: verify and extract
// exit 3 and name each with the reason and the change to the build script. Damage that
// keeps a module from unpacking is damage: exit 1.
TEST(InspectCompressed, ModulesThatCannotBeUnpacked) {
    const auto noise = fwforge::testing::RandomBytes(0x800, 99);  // does not compress
    TestModule junk;  // marked compressed, holding text
    junk.id = 0x13;
    junk.attributes = 0x00;
    junk.data = Text(0x40);
    TestLayout l;
    l.ebb_size = 0x1000;
    l.modules = {Compressed(0x11, Text(0x1000)), Compressed(0x12, noise), junk};
    l.ebb_modules = {Compressed(0x30, noise)};
    auto img = BuildTestImage(l);
    fwforge::testing::TempDir dir;
    const std::string path = dir.File("image.rom"), x = dir.File("x");
    fwforge::testing::WriteBytes(path, img.bytes);

    const std::string cut_off =
        ": its compressed stream is cut off by the encoder's output bound (total 809 = "
        "original size 800 + 9): the file does not compress; give its [module] section ";
    const std::string lines[] = {
        StrFormat("CANNOT UNPACK: module #1 (id 12) at %x", 0xC0000 + img.module_headers[1]) +
            cut_off + "`compressed = minsize` or `compressed = no`\n",
        StrFormat("CANNOT UNPACK: module #2 (id 13) at %x: it holds no compressed data (%s): "
                  "its file was marked `nowcompressed = yes` and is stored as it is; give it a "
                  "file that fwforge-lzh c compressed, or drop `nowcompressed = yes` from its "
                  "[module] section so that the build compresses it\n",
                  0xC0000 + img.module_headers[2], DecodeStoredData(junk.data).message.c_str()),
        StrFormat("CANNOT UNPACK: EBB module #0 (id 30) at %x", 0xC0000 + img.ebb_headers[0]) +
            cut_off + "`compressed = no`\n",
        "but 3 compressed modules cannot be unpacked\n",
    };
    std::string console;
    EXPECT_EQ(Inspect({"verify", path.c_str()}, console), 3);
    for (const std::string& line : lines) EXPECT_NE(console.find(line), std::string::npos) << line;
    EXPECT_EQ(Inspect({"verify", path.c_str(), "--json"}, console), 3);
    EXPECT_NE(console.find("\"status\": 3,\n  \"result\": \"cannot unpack\",\n  \"ok\": false"),
              std::string::npos)
        << console;
    EXPECT_NE(console.find("{\"module\": \"module #1 (id 12) at"), std::string::npos);
    EXPECT_EQ(Inspect({"extract", path.c_str(), x.c_str()}, console), 3);
    EXPECT_NE(console.find(lines[1].substr(0, lines[1].size() - 1) +
                           " (its stored data is written as .lh5)\n"),
              std::string::npos)
        << console;

    // A changed stream byte: the checksum no longer holds, and the stream is damage.
    auto& bytes = img.bytes;
    const std::uint32_t h = img.module_headers[0];
    bytes[h + 20 + 12] ^= 0x55;
    VerifyReport report = Verify(bytes, ReadImage(bytes, {}));
    EXPECT_EQ(report.Status(), kVerifyDamaged);
    EXPECT_EQ(report.cannot_unpack.size(), 3u);
    bool named = false;
    for (const Finding& f : report.problems) {
        named |= f.where.starts_with("module #0 (id 11)") &&
                 f.what.starts_with("compressed data not decodable");
    }
    EXPECT_TRUE(named) << VerifyText(report);
    // Sealed again, it is what a build of such a file makes.
    store_le32(&bytes[h + 4], 0);
    store_le32(&bytes[h + 4], 0u - DwordSum(bytes, h, 20 + load_le32(&bytes[h])));
    report = Verify(bytes, ReadImage(bytes, {}));
    EXPECT_EQ(report.Status(), kVerifyCannotUnpack) << VerifyText(report);
    EXPECT_EQ(report.cannot_unpack.size(), 4u);
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
