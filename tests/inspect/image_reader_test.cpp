// The reader, `list` and `verify` against images built byte by byte by the tests'
// own builder: clean images verify, flipped bytes are found and named, malformed
// images end with a report and status 1 or 2.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "inspect/image_model.h"
#include "inspect/inspect_cli.h"
#include "inspect/report.h"
#include "inspect/verify.h"
#include "inspect/test_image.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::Pattern;
using testing::TestImage;
using testing::TestLayout;
using testing::TestModule;

TestModule Mod(std::uint8_t id, std::size_t size, std::uint8_t seed, int pieces = 1) {
    TestModule m;
    m.id = id;
    m.data = Pattern(size, seed);
    m.pieces = pieces;
    m.dest_offset = static_cast<std::uint16_t>(id * 0x10);
    return m;
}

// Every kind of item: modules, an add-on ROM with a linked one, a split module, the
// EBB with two modules and a non-critical block with one.
TestLayout FullLayout() {
    TestLayout l;
    l.ebb_size = 0x800;
    l.flags = 0x06;
    l.region_from_zero = true;
    l.modules = {Mod(0x11, 0x300, 1), Mod(0x12, 0x1001, 2), Mod(0x20, 0x200, 3),
                 Mod(0x20, 0, 4), Mod(0x13, 0x900, 5, 3)};
    l.modules[2].dest_offset = 0x8086;
    l.modules[2].dest_segment = 0x1234;
    l.modules[3].attributes = 0x40;  // linked add-on ROM: no data, parent's size
    l.modules[3].dest_offset = 0x8086;
    l.modules[3].dest_segment = 0x5678;
    l.ebb_modules = {Mod(0x30, 0x40, 6), Mod(0x31, 0x84, 7)};
    TestModule in_block = Mod(0x40, 0x100, 8);
    l.ncbs = {{0x10000, 0x1000, {in_block}}};
    return l;
}

TestImage BuildFullWithLink() { return BuildTestImage(FullLayout()); }

bool HasProblem(const VerifyReport& r, const std::string& where_part) {
    for (const Finding& f : r.problems) {
        if (f.where.find(where_part) != std::string::npos) return true;
    }
    return false;
}

std::string Problems(const VerifyReport& r) { return VerifyText(r); }

TEST(InspectReader, ReadsEveryRegionAndModuleOfACleanImage) {
    const TestImage img = BuildFullWithLink();
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
    ASSERT_EQ(block.size(), 1u);
    EXPECT_EQ(block[0]->index, 6);  // numbered on from the main chain
    EXPECT_EQ(model.info.tool_version, "3.33");
    ASSERT_EQ(model.info.holes.size(), 1u);
    EXPECT_EQ(model.info.holes[0].kind, 2);

    const VerifyReport report = Verify(img.bytes, model);
    EXPECT_TRUE(report.Clean()) << Problems(report);
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
    EXPECT_TRUE(Verify(c.bytes, cm).Clean()) << Problems(Verify(c.bytes, cm));

    // Forcing the wrong form is reported, not followed blindly.
    InspectOptions forced;
    forced.link_form = LinkForm::Bits16;
    const ImageModel wrong = ReadImage(img.bytes, forced);
    EXPECT_FALSE(wrong.links32);
    EXPECT_FALSE(Verify(img.bytes, wrong).Clean());
}

struct FlipCase {
    const char* name;
    std::function<std::uint32_t(const TestImage&)> offset;
    const char* named;  // part of the problem's "where"
};

TEST(InspectVerify, FindsAndNamesEveryFlippedByte) {
    const TestImage clean = BuildFullWithLink();
    const FlipCase cases[] = {
        {"module data", [](const TestImage& i) { return i.module_headers[1] + 20 + 0x80; },
         "module #1 (id 12)"},
        {"module header destination", [](const TestImage& i) { return i.module_headers[0] + 16; },
         "module #0 (id 11)"},
        {"linked add-on ROM header", [](const TestImage& i) { return i.module_headers[3] + 18; },
         "module #3 (id 20)"},
        {"split piece data", [](const TestImage& i) { return i.module_headers[4] + 20 + 4; },
         "module #4 (id 13)"},
        {"image information data", [](const TestImage& i) { return i.module_headers[5] + 20 + 6; },
         "module #5 (id 80)"},
        {"main BIOS header stamp", [](const TestImage& i) { return i.main_signature + 9; },
         "main BIOS header"},
        {"main BIOS region padding",
         [](const TestImage& i) { return i.main_signature - 7; }, "main BIOS header"},
        {"EBB module data", [](const TestImage& i) { return i.ebb_headers[1] + 20 + 3; },
         "EBB module #1 (id 31)"},
        {"EBB free space", [](const TestImage& i) { return i.ebb_offset + 0x700; }, "EBB at"},
        {"EBB header length", [](const TestImage& i) { return i.ebb_offset + 13; }, "EBB at"},
        {"non-critical block module", [](const TestImage&) { return 0x10000u + 24 + 20 + 5; },
         "non-critical block 1 module #6"},
        {"non-critical block filler", [](const TestImage&) { return 0x10800u; },
         "non-critical block 1"},
        {"boot block", [](const TestImage& i) { return static_cast<std::uint32_t>(i.bytes.size() - 0x100); },
         "boot block"},
    };
    for (const FlipCase& c : cases) {
        TestImage img = clean;
        img.bytes[c.offset(img)] ^= 0x04;
        const ImageModel model = ReadImage(img.bytes, {});
        const VerifyReport report = Verify(img.bytes, model);
        EXPECT_FALSE(report.Clean()) << c.name;
        EXPECT_TRUE(HasProblem(report, c.named)) << c.name << "\n" << Problems(report);
    }
}

TEST(InspectVerify, OverlapsAndBadLengthsAreProblems) {
    TestLayout l;
    l.modules = {Mod(0x11, 0x100, 1), Mod(0x12, 0x100, 2)};
    TestImage img = BuildTestImage(l);
    // Make module 1 claim more data than it has: it then runs over module 0's header.
    const std::uint32_t h = img.module_headers[1];
    store_le32(&img.bytes[h], 0x200);
    const VerifyReport report = Verify(img.bytes, ReadImage(img.bytes, {}));
    EXPECT_TRUE(HasProblem(report, "module #1 (id 12)")) << Problems(report);
    bool overlap = false;
    for (const Finding& f : report.problems) overlap |= f.what.find("overlaps") != std::string::npos;
    EXPECT_TRUE(overlap) << Problems(report);
}

// Malformed images of every kind: the tool reports and ends with 1 or 2.
TEST(InspectRobustness, MalformedImagesEndWithAReport) {
    const TestImage clean = BuildFullWithLink();
    struct Case {
        const char* name;
        std::function<std::vector<std::uint8_t>()> make;
    };
    const std::vector<Case> cases = {
        {"empty", [] { return std::vector<std::uint8_t>{}; }},
        {"garbage", [] { return fwforge::testing::RandomBytes(0x20000, 7); }},
        {"all 0xFF", [] { return std::vector<std::uint8_t>(0x10000, 0xFF); }},
        {"signature only", [] {
             std::vector<std::uint8_t> v(64, 0);
             std::copy_n("ZELBIOSC", 8, v.begin() + 60 - 8);
             return v;
         }},
        {"truncated below the main header",
         [&] { return std::vector<std::uint8_t>(clean.bytes.begin(), clean.bytes.begin() + clean.main_signature + 12); }},
        {"truncated in the middle", [&] {
             return std::vector<std::uint8_t>(clean.bytes.begin() + 0x30000, clean.bytes.end());
         }},
        {"looping link", [&] {
             auto v = clean.bytes;
             // The last module links back to the first.
             std::copy_n(&v[clean.main_signature + 18], 4, &v[clean.module_headers.back() + 8]);
             return v;
         }},
        {"link out of range", [&] {
             auto v = clean.bytes;
             store_le32(&v[clean.module_headers[1] + 8], 0x0001FFF0);
             return v;
         }},
        {"data size past the end", [&] {
             auto v = clean.bytes;
             store_le32(&v[clean.module_headers[0]], 0x7FFFFFFF);
             return v;
         }},
        {"EBB length past the end", [&] {
             auto v = clean.bytes;
             store_le32(&v[clean.ebb_offset + 12], 0xFFFFFFF0);
             return v;
         }},
        {"EBB link loop", [&] {
             auto v = clean.bytes;
             store_le32(&v[clean.ebb_headers[1] + 8], 0x20);
             return v;
         }},
        {"image info records loop", [&] {
             auto v = clean.bytes;
             store_le16(&v[clean.module_headers[5] + 20 + 9], 0);
             return v;
         }},
    };
    fwforge::testing::TempDir dir;
    for (const Case& c : cases) {
        const std::string path = dir.File("bad.rom");
        fwforge::testing::WriteBytes(path, c.make());
        for (const char* command : {"list", "verify", "map"}) {
            const char* argv[] = {"fwforge-inspect", command, path.c_str(), nullptr};
            std::ostringstream out;
            const int status = RunInspect(3, argv, out);
            EXPECT_TRUE(status == 1 || status == 2) << c.name << " " << command << ": " << status;
            EXPECT_NE(out.str().find("PROBLEM: "), std::string::npos)
                << c.name << " " << command << "\n" << out.str();
        }
    }
}

TEST(InspectCli, CommandLineErrorsAndJson) {
    fwforge::testing::TempDir dir;
    const std::string path = dir.File("clean.rom");
    fwforge::testing::WriteBytes(path, BuildFullWithLink().bytes);
    // Texts from the image are escaped so that the JSON stays valid.
    TestLayout odd = FullLayout();
    odd.tool_version = "3\"\x01\xff";
    const std::string odd_path = dir.File("odd.rom");
    fwforge::testing::WriteBytes(odd_path, BuildTestImage(odd).bytes);
    const std::string missing = dir.File("missing.rom");
    struct Case {
        std::vector<const char*> args;
        int status;
        const char* contains;
    };
    const std::vector<Case> cases = {
        {{}, 2, "Usage - fwforge-inspect"},
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
        std::vector<const char*> argv = {"fwforge-inspect"};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        argv.push_back(nullptr);
        std::ostringstream out;
        EXPECT_EQ(RunInspect(static_cast<int>(argv.size() - 1), argv.data(), out), c.status)
            << (c.args.empty() ? "" : c.args[0]) << "\n" << out.str();
        EXPECT_NE(out.str().find(c.contains), std::string::npos) << out.str();
    }
}

}  // namespace
}  // namespace fwforge::inspect
