// `diff` between images built byte by byte that differ in known ways.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "inspect/diff.h"
#include "inspect/test_image.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::Mod;
using testing::TestLayout;

TestLayout Base() {
    TestLayout l;
    l.modules = {Mod(0x11, 0x200, 1), Mod(0x12, 0x300, 2), Mod(0x13, 0x100, 3), Mod(0x14, 0x80, 4)};
    return l;
}

std::vector<std::string> Lines(const std::vector<Difference>& diff, const std::string& kind) {
    std::vector<std::string> out;
    for (const Difference& d : diff) {
        if (d.kind == kind) out.push_back(d.what);
    }
    return out;
}

TEST(InspectDiff, NamesExactlyWhatDiffers) {
    struct Case {
        const char* name;
        std::function<void(TestLayout&)> change;
        std::vector<std::string> changed, added, removed;
        std::size_t moved;
        std::vector<std::string> image = {};
    };
    const std::vector<Case> cases = {
        {"nothing", [](TestLayout&) {}, {}, {}, {}, 0},
        {"one byte of one module",
         [](TestLayout& l) { l.modules[1].data[7] ^= 1; },
         {"module #1 (id 12) f000:0120: content (300 -> 300 bytes)"}, {}, {}, 0},
        {"one module grows",
         [](TestLayout& l) { l.modules[1].data.resize(0x340, 0x5A); },
         {"module #1 (id 12) f000:0120: content (300 -> 340 bytes); data size 300 -> 340"}, {}, {},
         4},  // its header goes lower, and the modules below it follow
        {"header field",
         [](TestLayout& l) { l.modules[2].attributes = 0x90; },
         {"module #2 (id 13) f000:0130: attributes 80 -> 90 (uncompressed -> uncompressed, "
          "contiguous)"},
         {}, {}, 0},
        {"module added",
         [](TestLayout& l) { l.modules.push_back(Mod(0x15, 0x40, 5)); },
         {}, {"module #4 (id 15) f000:0150"}, {}, 1},
        {"module removed",
         [](TestLayout& l) { l.modules.erase(l.modules.begin() + 3); },
         {}, {}, {"module #3 (id 14) f000:0140"}, 1},
        {"main BIOS header version and flags",
         [](TestLayout& l) {
             l.version = 2;
             l.flags = 0x04;
         },
         // The image information module records both.
         {"module #4 (id 80) 0000:0000: content (2c -> 2c bytes)"}, {}, {}, 0,
         {"main BIOS header version 01 -> 02", "main BIOS header flags 00 -> 04"}},
        {"a non-critical block more",
         [](TestLayout& l) { l.ncbs = {{0x10000, 0x400, {Mod(0x41, 0x40, 9)}}}; },
         {"module #4 (id 80) 0000:0000: content (2c -> 3c bytes); data size 2c -> 3c"},
         {"non-critical block 1 module #5 (id 41) f000:0410"}, {}, 1,
         {"0 -> 1 non-critical blocks"}},
        {"a module split",
         [](TestLayout& l) { l.modules[0].pieces = 2; },
         {"module #0 (id 11) f000:0110: 1 -> 2 pieces"}, {}, {}, 5},
    };
    const auto a = BuildTestImage(Base());
    const ImageModel ma = ReadImage(a.bytes, {});
    for (const Case& c : cases) {
        TestLayout changed = Base();
        c.change(changed);
        const auto b = BuildTestImage(changed);
        const auto diff = DiffImages(a.bytes, ma, b.bytes, ReadImage(b.bytes, {}));
        EXPECT_EQ(Lines(diff, "changed"), c.changed) << c.name << "\n" << DiffText(diff);
        auto starts = [](std::vector<std::string> lines, const std::vector<std::string>& prefixes) {
            if (lines.size() != prefixes.size()) return false;
            for (std::size_t i = 0; i < lines.size(); ++i) {
                if (!lines[i].starts_with(prefixes[i])) return false;
            }
            return true;
        };
        EXPECT_TRUE(starts(Lines(diff, "added"), c.added)) << c.name << "\n" << DiffText(diff);
        EXPECT_TRUE(starts(Lines(diff, "removed"), c.removed)) << c.name << "\n" << DiffText(diff);
        EXPECT_EQ(Lines(diff, "moved").size(), c.moved) << c.name << "\n" << DiffText(diff);
        const auto image = Lines(diff, "image");
        for (const std::string& line : c.image) {
            EXPECT_NE(std::find(image.begin(), image.end(), line), image.end())
                << c.name << ": " << line << "\n" << DiffText(diff);
        }
    }
}

TEST(InspectDiff, CommandExitStatus) {
    fwforge::testing::TempDir dir;
    const std::string a = dir.File("a.rom"), b = dir.File("b.rom"), bad = dir.File("bad.rom");
    fwforge::testing::WriteBytes(a, BuildTestImage(Base()).bytes);
    TestLayout other = Base();
    other.stamp = 0x1B1B1B1B;
    fwforge::testing::WriteBytes(b, BuildTestImage(other).bytes);
    fwforge::testing::WriteBytes(bad, std::vector<std::uint8_t>(100, 0));
    struct Case {
        std::string second;
        int status;
        const char* contains;
    };
    for (const Case& c : {Case{a, 0, "diff: no differences\n"},
                          Case{b, 1, "image    boot block stamp 12345678 -> 1b1b1b1b\n"},
                          Case{bad, 2, "no main BIOS header"}}) {
        std::string out;
        EXPECT_EQ(testing::Inspect({"diff", a.c_str(), c.second.c_str()}, out), c.status) << out;
        EXPECT_NE(out.find(c.contains), std::string::npos) << out;
    }
}

}  // namespace
}  // namespace fwforge::inspect
