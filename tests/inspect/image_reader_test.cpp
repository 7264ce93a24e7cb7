// The reader, `list` and `verify` against images built byte by byte by the tests'
// own builder: clean images verify, flipped bytes are found and named, malformed
// images end with a report and status 1 or 2.

#include <gtest/gtest.h>

#include "inspect/test_image.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::FullLayout;
using testing::Mod;
using testing::TestImage;
using testing::TestLayout;

TEST(InspectReader, ReadsEveryRegionAndModuleOfACleanImage) {
    const TestImage img = BuildTestImage(FullLayout());
    const ImageModel model = ReadImage(img.bytes, {});
    ASSERT_TRUE(model.main);
    EXPECT_EQ(model.main->signature, img.main_signature);
    EXPECT_FALSE(model.links32);
    EXPECT_EQ(model.address_base, 0xC0000u);
    ASSERT_TRUE(model.boot_block_size);
    EXPECT_EQ(*model.boot_block_size, 0x2000u);
    ASSERT_TRUE(model.ebb);
    EXPECT_EQ(model.ebb->offset, img.ebb_offset);
    ASSERT_TRUE(model.nvram_offset);
    EXPECT_EQ(*model.nvram_offset, img.ebb_offset - 0x1000);
    EXPECT_TRUE(model.gap_placement);  // flags say ROM holes

    const auto main = model.ModulesIn(ModuleArea::Main);
    ASSERT_EQ(main.size(), 6u);
    const std::uint8_t ids[] = {0x11, 0x12, 0x20, 0x20, 0x13, 0x80};
    for (std::size_t i = 0; i < main.size(); ++i) {
        EXPECT_EQ(main[i]->header.id, ids[i]) << i;
        EXPECT_EQ(main[i]->index, static_cast<int>(i));
        EXPECT_EQ(main[i]->header.offset, img.module_headers[i]) << i;
    }
    EXPECT_TRUE(main[3]->Linked());
    EXPECT_TRUE(main[4]->Split());
    EXPECT_EQ(main[4]->pieces.size(), 3u);
    EXPECT_EQ(main[4]->StoredLength(), 0x900u);
    EXPECT_EQ(main[1]->header.data_size, 0x1004u);
    EXPECT_EQ(model.ModulesIn(ModuleArea::Ebb).size(), 2u);
    ASSERT_EQ(model.ncbs.size(), 1u);
    const auto block = model.ModulesIn(ModuleArea::Ncb, 0);
    ASSERT_EQ(block.size(), 2u);
    EXPECT_EQ(block[0]->index, 6);  // numbered on from the main chain
    EXPECT_EQ(model.info.tool_version, "3.33");
    ASSERT_EQ(model.info.holes.size(), 1u);
    EXPECT_EQ(model.info.holes[0].kind, 2);

    const VerifyReport report = Verify(img.bytes, model);
    EXPECT_TRUE(report.Clean()) << VerifyText(report);
    EXPECT_GT(report.checks, 20);
}

TEST(InspectReader, ThirtyTwoBitLinksAndForcedForms) {
    TestLayout l;
    l.links32 = true;
    l.flags = 0x01;
    l.modules = {Mod(0x11, 0x100, 1), Mod(0x12, 0x104, 2)};
    const TestImage img = BuildTestImage(l);
    const ImageModel model = ReadImage(img.bytes, {});
    EXPECT_TRUE(model.links32);
    EXPECT_EQ(model.address_base, 0u);
    EXPECT_EQ(model.ModulesIn(ModuleArea::Main).size(), 3u);
    EXPECT_TRUE(Verify(img.bytes, model).Clean());

    // The compatibility form writes no flags: the link decides.
    TestLayout compat = l;
    compat.flags = 0;
    compat.version = 0;
    const TestImage c = BuildTestImage(compat);
    const ImageModel cm = ReadImage(c.bytes, {});
    EXPECT_TRUE(cm.links32);
    EXPECT_TRUE(Verify(c.bytes, cm).Clean()) << VerifyText(Verify(c.bytes, cm));

    // Forcing the wrong form is reported, not followed blindly.
    InspectOptions forced;
    forced.link_form = LinkForm::Bits16;
    const ImageModel wrong = ReadImage(img.bytes, forced);
    EXPECT_FALSE(wrong.links32);
    EXPECT_FALSE(Verify(img.bytes, wrong).Clean());
}

TEST(InspectVerify, FindsAndNamesEveryFlippedByte) {
    const TestImage i = BuildTestImage(FullLayout());
    const std::pair<std::uint32_t, const char*> flips[] = {
        {i.module_headers[1] + 20 + 0x80, "module #1 (id 12)"},      // module data
        {i.module_headers[0] + 16, "module #0 (id 11)"},             // header destination
        {i.module_headers[3] + 18, "module #3 (id 20)"},             // linked add-on ROM header
        {i.module_headers[4] + 20 + 4, "module #4 (id 13)"},         // split piece data
        {i.module_headers[5] + 20 + 6, "module #5 (id 80)"},         // image information
        {i.main_signature + 9, "main BIOS header"},                  // stamp
        {i.main_signature - 7, "main BIOS header"},                  // region padding
        {i.ebb_headers[1] + 20 + 3, "EBB module #1 (id 31)"},        // EBB module data
        {i.ebb_offset + 0x700, "EBB at"},                            // EBB free space
        {i.ebb_offset + 13, "EBB at"},                               // EBB header length
        {0x10000u + 24 + 20 + 5, "non-critical block 1 module #6"},  // block module
        {0x10800u, "non-critical block 1"},                          // block filler
        {static_cast<std::uint32_t>(i.bytes.size() - 0x100), "boot block"},
    };
    for (const auto& [at, named] : flips) testing::ExpectFlipFound(i.bytes, at, named, 0x04);
}

TEST(InspectVerify, OverlapsAndBadLengthsAreProblems) {
    TestLayout l;
    l.modules = {Mod(0x11, 0x100, 1), Mod(0x12, 0x100, 2)};
    TestImage img = BuildTestImage(l);
    // Make module 1 claim more data than it has: it then runs over module 0's header.
    const std::uint32_t h = img.module_headers[1];
    store_le32(&img.bytes[h], 0x200);
    const VerifyReport report = Verify(img.bytes, ReadImage(img.bytes, {}));
    bool named = false, overlap = false;
    for (const Finding& f : report.problems) {
        named |= f.where.starts_with("module #1 (id 12)");
        overlap |= f.what.find("overlaps") != std::string::npos;
    }
    EXPECT_TRUE(named && overlap) << VerifyText(report);
}

// Malformed images of every kind: the tool reports and ends with 1 or 2.
TEST(InspectRobustness, MalformedImagesEndWithAReport) {
    using Bytes = std::vector<std::uint8_t>;
    const TestImage clean = BuildTestImage(FullLayout());
    const Bytes& b = clean.bytes;
    const std::uint32_t main_signature = clean.main_signature;
    auto with32 = [&](std::uint32_t at, std::uint32_t value) {
        Bytes v = b;
        store_le32(&v[at], value);
        return v;
    };
    Bytes looping = b;  // the last module links back to the first
    std::copy_n(&looping[clean.main_signature + 18], 4, &looping[clean.module_headers.back() + 8]);
    Bytes info_loop = b;
    store_le16(&info_loop[clean.module_headers[5] + 20 + 9], 0);
    Bytes signature_only(64, 0);
    std::copy_n("ZELBIOSC", 8, signature_only.begin() + 52);
    const std::pair<const char*, Bytes> cases[] = {
        {"empty", {}},
        {"garbage", fwforge::testing::RandomBytes(0x20000, 7)},
        {"all 0xFF", Bytes(0x10000, 0xFF)},
        {"signature only", signature_only},
        {"truncated below the main header", Bytes(b.begin(), b.begin() + main_signature + 12)},
        {"truncated in the middle", Bytes(b.begin() + 0x30000, b.end())},
        {"looping link", looping},
        {"link out of range", with32(clean.module_headers[1] + 8, 0x0001FFF0)},
        {"data size past the end", with32(clean.module_headers[0], 0x7FFFFFFF)},
        {"EBB length past the end", with32(clean.ebb_offset + 12, 0xFFFFFFF0)},
        {"EBB link loop", with32(clean.ebb_headers[1] + 8, 0x20)},
        {"image info records loop", info_loop},
    };
    fwforge::testing::TempDir dir;
    const std::string path = dir.File("bad.rom");
    for (const auto& [name, image] : cases) {
        fwforge::testing::WriteBytes(path, image);
        for (const char* command : {"list", "verify", "map"}) {
            std::string out;
            const int status = testing::Inspect({command, path.c_str()}, out);
            EXPECT_TRUE(status == 1 || status == 2) << name << " " << command << ": " << status;
            EXPECT_NE(out.find("PROBLEM: "), std::string::npos) << name << " " << command << out;
        }
    }
}

TEST(InspectCli, CommandLineErrorsAndJson) {
    fwforge::testing::TempDir dir;
    const std::string path = dir.File("clean.rom");
    fwforge::testing::WriteBytes(path, BuildTestImage(FullLayout()).bytes);
    // Texts from the image are escaped so that the JSON stays valid.
    TestLayout odd = FullLayout();
    odd.tool_version = "3\"\x01\xff";
    const std::string odd_path = dir.File("odd.rom");
    fwforge::testing::WriteBytes(odd_path, BuildTestImage(odd).bytes);
    const std::string missing = dir.File("missing.rom"), blank = dir.File("blank.rom");
    fwforge::testing::WriteBytes(blank, std::vector<std::uint8_t>(0x1000, 0xFF));
    struct Case {
        std::vector<const char*> args;
        int status;
        const char* contains;
    };
    const std::vector<Case> cases = {
        {{}, 2, "Usage - fwforge-inspect"},
        {{"--help"}, 0, "exit 0 intact, 1 damaged, 3 intact as built but some"},
        {{"verify", missing.c_str()}, 2, "cannot open image"},
        {{"verify", blank.c_str()}, 1, "no main BIOS header"},
        {{"list"}, 2, "a command and an image are needed"},
        {{"frobnicate", path.c_str()}, 2, "unknown command frobnicate"},
        {{"list", path.c_str(), "--bbsize"}, 2, "--bbsize needs a value"},
        {{"list", path.c_str(), "--bbsize", "xyz"}, 2, "not a hex number"},
        {{"list", missing.c_str()}, 2, "cannot open image"},
        {{"extract", path.c_str()}, 2, "extract needs DIR"},
        {{"list", path.c_str(), "--wide"}, 2, "unknown option --wide"},
        {{"list", path.c_str(), "extra"}, 2, "too many arguments"},
        {{"map", path.c_str(), "--json"}, 2, "--json is for list and verify"},
        {{"verify", path.c_str(), "--16"}, 0, "verify: OK"},
        {{"list", path.c_str()}, 0, "Main BIOS modules in chain order (6):"},
        {{"list", path.c_str(), "--json"}, 0, "\"placement\": \"gap\""},
        {{"list", odd_path.c_str(), "--json"}, 0,
         "\"image_information\": {\"tool_version\": \"3\\\"\\u0001\\u00ff\", \"version\": 1, "
         "\"flags\": 6},"},
        {{"verify", path.c_str()}, 0, "verify: OK"},
        {{"verify", path.c_str(), "--json"}, 0, "\"ok\": true"},
        {{"verify", path.c_str(), "--bbsize", "1000"}, 1, "boot block (1000 bytes at ff000)"},
        {{"verify", path.c_str(), "--32"}, 1, "PROBLEM: main BIOS header"},
    };
    for (const Case& c : cases) {
        std::string out;
        EXPECT_EQ(testing::Inspect(c.args, out), c.status) << out;
        EXPECT_NE(out.find(c.contains), std::string::npos) << out;
    }
}

}  // namespace
}  // namespace fwforge::inspect
