// Random valid build scripts with reserved ranges, built from fixed seeds: every image
// must pass the structural checks of gap placement, and every module hold its file.

#include <gtest/gtest.h>

#include <sstream>

#include "compress/lzh_decoder.h"
#include "driver/image_build.h"
#include "platform/text_format.h"
#include "script/script_reader.h"
#include "support/image_checks.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

using testing::ReservedRange;

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

struct Script {
    std::string text;
    std::uint32_t top = 0;
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
            s << "[module]\nfile = " << module_file(size) << "\n";
            if (addon) {
                s << StrFormat("moduleid = 20\nvendorid = 1%03x\ndeviceid = 0001\n", slot);
            } else {
                s << StrFormat("moduleid = %02x\ndestn = f000:0000\n", 0x30 + slot % 16);
            }
            s << (r.OneIn(2) ? "compressed = no\n" : "")
              << StrFormat("startaddress = %08x\n", start + 0x100 + 4 * r.Below(0x10));
            for (std::uint32_t l = 0; addon && l < r.Below(3); ++l) {
                s << StrFormat("[module]\nmoduleid = 20\nvendorid = 2%03x\ndeviceid = 000%x\n"
                               "linkvenid = 1%03x\nlinkdevid = 0001\nlink = yes\n",
                               slot, l, slot);
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
                s << "[module]\nfile = " << module_file(size)
                  << StrFormat("\nmoduleid = %02x\ndestn = 1000:0000\ncompressed = no\nromregion = %s\n",
                               0x50 + k, name.c_str());
            }
            s << StrFormat("[noncriticalrom]\nname = %s\nstartaddress = %08x\nsize = %x\n",
                           name.c_str(), start, used + r.Below(0x200));
            blocks.push_back(name);
            break;
        }
        default: {  // ROM hole, maybe with a file
            const std::uint32_t size = 0x10 + r.Below(0x2FE0);  // stays inside its slot
            s << StrFormat("[romhole]\nstartaddress = %08x\nsize = %x\nfiller = %02x\n", start, size,
                           r.Below(0x100));
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
        s << "[module]\nfile = " << module_file(size)
          << StrFormat("\nmoduleid = %02x\ndestn = 2000:0000\n", 0x60 + k);
        static const char* const kCompression[] = {"yes", "no", "minsize"};
        s << "compressed = " << kCompression[r.Below(3)] << "\n";
        s << (contiguous ? "contiguous = yes\n" : "contiguous = no\n");
        if (r.OneIn(3)) {
            static const std::uint32_t kAlign[] = {0x10, 0x20, 0x80, 0x40};
            s << StrFormat("alignment = %x\n", kAlign[r.Below(4)]);
        } else if (r.OneIn(6)) {
            s << "romregion = nosuchblock\n";  // placed nowhere
        }
    }
    return {testing::WithCrLf(s.str()), top};
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
        try {
            ParseBuildScript(ctx, path);
        } catch (const FatalError& e) {
            FAIL() << e.what() << "\n" << script.text;
        }
        const BuildDescription& d = ctx.description;
        const std::uint32_t base = 0x100000 - d.Bios.BiosSize;
        std::vector<ReservedRange> ranges;
        for (std::uint32_t i = 0; i < d.RomHoleCount; ++i) {
            const RomHoleEntry& h = d.RomHoleTable[i];
            ReservedRange range;
            range.kind = h.OwnerModule != kNoIndex ? ReservedRange::FixedModule
                         : h.Name.empty()          ? ReservedRange::Hole
                                                   : ReservedRange::Block;
            range.start = h.StartAddress - base;
            range.size = h.Size;
            range.filler = h.Filler;
            if (!h.FileName.empty()) range.file = testing::ReadBytes(h.FileName);
            ranges.push_back(range);
        }
        try {
            BuildRomImage(ctx);
        } catch (const FatalError& e) {
            FAIL() << e.what() << "\n" << console.str() << "\n" << script.text;
        }
        for (std::uint32_t i = 0; i < ranges.size(); ++i) {
            if (ranges[i].kind == ReservedRange::FixedModule) {
                ranges[i].start = d.RomHoleTable[i].StartAddress;
                ranges[i].size = d.RomHoleTable[i].Size;
            }
        }
        const std::vector<std::uint8_t> rom = testing::ReadBytes(d.Bios.RomFile);
        ASSERT_EQ(rom.size(), d.Bios.BiosSize);
        const bool info_split =
            console.str().find(" Splitting " + d.ModuleTable[d.ModuleCount].FileName) !=
            std::string::npos;
        const auto check = testing::CheckGapImage(rom, testing::LinkForm::Real16, ranges,
                                                  script.top, info_split);
        for (const auto& p : check.problems) ADD_FAILURE() << p;
        if (!check.problems.empty()) {
            ADD_FAILURE() << console.str() << "\n" << script.text;
        }
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
