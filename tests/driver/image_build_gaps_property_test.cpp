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
#include "support/test_files.h"

namespace fwforge {
namespace {

class Random {
public:
    explicit Random(std::uint32_t seed) : state_(seed * 2654435761u + 1) {}
    std::uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    std::uint32_t Below(std::uint32_t n) { return Next() % n; }
    bool OneIn(std::uint32_t n) { return Below(n) == 0; }

private:
    std::uint32_t state_;
};

// Compressible bytes: runs of a few words with random bytes between them.
std::vector<std::uint8_t> ModuleBytes(Random& r, std::uint32_t size) {
    std::vector<std::uint8_t> bytes(size);
    const bool noisy = r.OneIn(2);
    for (std::uint32_t i = 0; i < size; ++i) {
        bytes[i] = noisy || r.OneIn(8) ? static_cast<std::uint8_t>(r.Next()) : "fwforge "[i % 8];
    }
    return bytes;
}

// A module the script asks for, told apart in the image by its module id (every module
// but an add-on ROM has its own) or, for an add-on ROM, by its vendor and device ids.
struct WantedModule {
    std::string key;
    std::string file;  // empty for a linked add-on ROM
    std::uint32_t alignment = 0;
    bool placed = true;  // false when its region names no block
};

std::string KeyOf(std::uint8_t id, std::uint16_t vendor, std::uint16_t device) {
    return id == 0x20 ? StrFormat("20:%04x:%04x", vendor, device) : StrFormat("%02x", id);
}

struct Script {
    std::string text;
    std::vector<WantedModule> modules;
};

// A 256 KB or 512 KB 16-bit image. The free area is cut into slots of 0x4000 bytes; some
// slots hold a reserved range (ROM hole, non-critical block, module at a start address)
// at a paragraph inside them, so ranges never touch the same paragraph or each other.
Script MakeScript(Random& r, const testing::TempDir& dir) {
    const std::uint32_t bios = r.OneIn(2) ? 0x40000 : 0x80000;
    const std::uint32_t nvram = r.OneIn(2) ? 0x4000 : 0;
    const std::uint32_t base = 0x100000 - bios;
    const std::uint32_t top = bios - 0x10000 - nvram;
    std::ostringstream s;
    s << "[init]\nfile = " << dir.File("bb.bin") << "\n[bios]\nfile = " << dir.File("out.rom")
      << StrFormat("\nsize = %08x\nbbsize = 00010000\nnvramsize = %08x\ntag = prop\n", bios, nvram);
    testing::WriteBytes(dir.File("bb.bin"), testing::RandomBytes(0x10000, r.Next()));

    std::vector<WantedModule> wanted;
    std::uint32_t next_id = 0x30;
    int file_no = 0;
    auto module_file = [&](std::uint32_t size) {
        const std::string name = dir.File(StrFormat("m%d.bin", file_no++));
        testing::WriteBytes(name, ModuleBytes(r, size));
        return name;
    };
    std::vector<std::string> blocks;
    const std::uint32_t slots = (top - 0x2000) / 0x4000;
    int ranges = 0;
    for (std::uint32_t slot = 0; slot < slots && ranges < 14; ++slot) {
        if (r.OneIn(4)) continue;
        ++ranges;
        const std::uint32_t start = base + 0x1000 + slot * 0x4000 + r.Below(0x100) * 0x10;
        switch (r.Below(4)) {
        case 0: {  // module at a start address, maybe an add-on ROM with links
            const std::uint32_t size = 0x10 + r.Below(0x1800);
            const bool addon = r.OneIn(2);
            const std::string file = module_file(size);
            s << "[module]\nfile = " << file << "\n";
            if (addon) {
                s << StrFormat("moduleid = 20\nvendorid = 1%03x\ndeviceid = 0001\n", slot);
                wanted.push_back({KeyOf(0x20, 0x1000 + slot, 1), file});
            } else {
                s << StrFormat("moduleid = %02x\ndestn = f000:0000\n", next_id);
                wanted.push_back({KeyOf(next_id++, 0, 0), file});
            }
            s << (r.OneIn(2) ? "compressed = no\n" : "")
              << StrFormat("startaddress = %08x\n", start + 0x100 + 4 * r.Below(0x10));
            for (std::uint32_t l = 0; addon && l < r.Below(3); ++l) {
                s << StrFormat("[module]\nmoduleid = 20\nvendorid = 2%03x\ndeviceid = 000%x\n"
                               "linkvenid = 1%03x\nlinkdevid = 0001\nlink = yes\n",
                               slot, l, slot);
                wanted.push_back({KeyOf(0x20, 0x2000 + slot, l), ""});
            }
            break;
        }
        case 1: {  // non-critical block, maybe with modules
            const std::string name = StrFormat("blk%u", slot);
            std::uint32_t used = 24;
            const std::uint32_t count = r.Below(3);
            for (std::uint32_t k = 0; k < count; ++k) {
                const std::uint32_t size = 0x10 + r.Below(0x600);
                used += ((size + 3) & ~3u) + 20;
                const std::string file = module_file(size);
                s << "[module]\nfile = " << file
                  << StrFormat(
                         "\nmoduleid = %02x\ndestn = 1000:0000\ncompressed = no\nromregion = %s\n",
                         next_id, name.c_str());
                wanted.push_back({KeyOf(next_id++, 0, 0), file});
            }
            s << StrFormat("[noncriticalrom]\nname = %s\nstartaddress = %08x\nsize = %x\n",
                           name.c_str(), start, used + r.Below(0x200));
            blocks.push_back(name);
            break;
        }
        default: {  // ROM hole, maybe with a file
            const std::uint32_t size = 0x10 + r.Below(0x2FE0);  // stays inside its slot
            s << StrFormat("[romhole]\nstartaddress = %08x\nsize = %x\nfiller = %02x\n", start,
                           size, r.Below(0x100));
            if (r.OneIn(2)) {
                const std::string name = dir.File(StrFormat("h%d.bin", file_no++));
                testing::WriteBytes(name, testing::RandomBytes(1 + r.Below(size), r.Next()));
                s << "file = " << name << "\n";
            }
            break;
        }
        }
    }
    if (ranges == 0) {
        s << StrFormat("[romhole]\nstartaddress = %08x\nsize = 100\n", base + 0x2000);
    }
    // Main BIOS modules: some must not be split, some are aligned, some need splitting.
    const std::uint32_t count = 1 + r.Below(8);
    for (std::uint32_t k = 0; k < count; ++k) {
        const bool contiguous = r.OneIn(4);
        const std::uint32_t size = contiguous ? 0x10 + r.Below(0x1000) : 0x10 + r.Below(0xC000);
        WantedModule& module =
            wanted.emplace_back(WantedModule{KeyOf(next_id, 0, 0), module_file(size)});
        s << "[module]\nfile = " << module.file
          << StrFormat("\nmoduleid = %02x\ndestn = 2000:0000\n", next_id++);
        static const char* const kCompression[] = {"yes", "no", "minsize"};
        s << "compressed = " << kCompression[r.Below(3)] << "\n";
        s << (contiguous ? "contiguous = yes\n" : "contiguous = no\n");
        if (r.OneIn(3)) {
            static const std::uint32_t kAlign[] = {0x10, 0x20, 0x80, 0x40};
            module.alignment = kAlign[r.Below(4)];
            s << StrFormat("alignment = %x\n", module.alignment);
        } else if (r.OneIn(6)) {
            s << "romregion = nosuchblock\n";  // placed nowhere
            module.placed = false;
        }
    }
    return {testing::WithCrLf(s.str()), std::move(wanted)};
}

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
                      const std::vector<WantedModule>& wanted, const std::string& console) {
    std::map<std::string, std::vector<HeldModule>> held;
    CollectModules(rom, check.main.chain, held);
    for (const auto& block : check.blocks) CollectModules(rom, block.chain, held);
    for (const WantedModule& w : wanted) {
        SCOPED_TRACE(w.key + " " + w.file);
        const auto found = held.find(w.key);
        if (!w.placed) {
            EXPECT_EQ(found, held.end());
            EXPECT_EQ(console.find(w.file), std::string::npos);
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
            EXPECT_EQ(load_le32(&m.data[4]), file.size());
            if (load_le32(&m.data[0]) != file.size() + 9) {
                std::string error;
                const auto decoded = lzh::DecodeCompressedData(m.data, &error);
                ASSERT_TRUE(decoded) << error;
                EXPECT_EQ(*decoded, file);
            }
        }
        if (w.alignment != 0 && !m.split) {
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
        Random r(seed);
        const Script script = MakeScript(r, dir);
        const std::string path = dir.File("prop.scr");
        testing::WriteText(path, script.text);

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
