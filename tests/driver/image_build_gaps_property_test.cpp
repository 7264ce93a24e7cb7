// Random valid build scripts with reserved ranges, built from fixed seeds: every image
// must pass the structural checks of gap placement, and every module hold its file.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "compress/lzh_decoder.h"
#include "driver/image_build.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"
#include "script/script_reader.h"
#include "support/image_checks.h"
#include "support/random_script.h"

namespace fwforge {
namespace {

using testing::KeyOf;
using testing::ScriptModule;

// A module as the image holds it: the data of a split module's pieces joined.
struct HeldModule {
    std::vector<std::uint8_t> data;
    std::uint32_t data_start = 0;  // of the first piece
    bool split = false;
    bool stored_as_is = false;
};

void CollectModules(std::span<const std::uint8_t> rom,
                    const std::vector<testing::ChainEntry>& chain,
                    std::map<std::string, std::vector<HeldModule>>& held) {
    HeldModule pieces;
    for (const testing::ChainEntry& e : chain) {
        const std::string key = KeyOf(e.module_id, e.dest_offset, e.dest_segment);
        if (e.attributes & 0x40) {
            held[key].push_back({});
            continue;
        }
        if (!pieces.split) pieces.data_start = e.data();
        pieces.data.insert(pieces.data.end(), rom.begin() + e.data(),
                           rom.begin() + e.data() + e.own_size);
        if (e.attributes & 0x20) {
            pieces.split = true;
            continue;
        }
        pieces.stored_as_is = e.attributes & 0x80;
        held[key].push_back(std::move(pieces));
        pieces = {};
    }
}

// Every module of the script is in the image once, holding its file (as it is, or
// compressed), with its data aligned when it was placed whole; a module whose region
// names no block is neither placed nor announced.
void CheckModulesHeld(std::span<const std::uint8_t> rom, const testing::GapImageCheck& check,
                      const std::vector<ScriptModule>& wanted, const std::string& console) {
    std::map<std::string, std::vector<HeldModule>> held;
    CollectModules(rom, check.main.chain, held);
    for (const auto& block : check.blocks) CollectModules(rom, block.chain, held);
    for (const ScriptModule& w : wanted) {
        SCOPED_TRACE(w.key + " " + w.file);
        const auto found = held.find(w.key);
        if (!w.placed) {
            EXPECT_EQ(found, held.end());
            if (!w.file.empty()) {
                EXPECT_EQ(console.find(w.file), std::string::npos);
            }
            continue;
        }
        ASSERT_NE(found, held.end());
        ASSERT_EQ(found->second.size(), 1u);
        const HeldModule& m = found->second.front();
        if (w.file.empty()) continue;  // a linked add-on ROM: its header only
        const std::vector<std::uint8_t> file = testing::ReadBytes(w.file);
        if (m.stored_as_is) {
            ASSERT_GE(m.data.size(), file.size());
            EXPECT_TRUE(std::equal(file.begin(), file.end(), m.data.begin()));
        } else {
            // Noisy data runs into the encoder's output bound and is stored cut off,
            // total = consumed + 9, as the encoder leaves it; a complete stream decodes.
            ASSERT_GE(m.data.size(), 8u);
            const std::uint32_t consumed = load_le32(&m.data[4]);
            if (load_le32(&m.data[0]) == consumed + 9) {
                EXPECT_LE(consumed, file.size());
            } else {
                EXPECT_EQ(consumed, file.size());
                std::string error;
                const auto decoded = lzh::DecodeCompressedData(m.data, &error);
                ASSERT_TRUE(decoded) << error;
                EXPECT_EQ(*decoded, file);
            }
        }
        // The headers of an add-on ROM's linked ones go below its header after its
        // room was aligned, and move its data up by 20 bytes each.
        if (w.alignment != 0 && !m.split && w.key.size() == 2) {
            EXPECT_EQ(m.data_start % w.alignment, 0u);
        }
    }
}

TEST(GapBuildProperty, RandomScriptsBuildSoundImages) {
    int built = 0;
    // How often the seeds reach the interesting paths, so that a change of the
    // generator cannot quietly stop covering them.
    int splits = 0, block_modules = 0, fixed = 0, links = 0;
    for (std::uint32_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(StrFormat("seed %u", seed));
        testing::TempDir dir;
        const testing::RandomScript script = testing::MakeRandomScript(
            seed, dir, {.placement = testing::Placement::Gap, .every_kind = false});
        const std::string path = script.path;

        std::ostringstream console;
        BuildContext ctx(console);
        ctx.options.OutputPath = dir.path().string();
        testing::GapImageCheck check;
        try {
            ParseBuildScript(ctx, path);
            check = testing::BuildAndCheckGapImage(ctx, console, testing::LinkForm::Real16);
        } catch (const FatalError& e) {
            FAIL() << e.what() << "\n" << console.str() << "\n" << script.text;
        }
        const BuildDescription& d = ctx.description;
        const std::vector<std::uint8_t> rom = testing::ReadBytes(d.Bios.RomFile);
        ASSERT_EQ(rom.size(), d.Bios.BiosSize);
        for (const auto& p : check.problems) ADD_FAILURE() << p << "\n" << script.text;
        CheckModulesHeld(rom, check, script.modules, console.str());
        ++built;
        const std::string text = console.str();
        splits += text.find(" Splitting ") != std::string::npos;
        for (const auto& block : check.blocks) block_modules += !block.chain.empty();
        fixed += d.FixedModuleCount != 0;
        links += text.find("linked addon-rom") != std::string::npos;
    }
    EXPECT_EQ(built, 60);
    EXPECT_GE(splits, 10);
    EXPECT_GE(block_modules, 10);
    EXPECT_GE(fixed, 10);
    EXPECT_GE(links, 5);
}

}  // namespace
}  // namespace fwforge
