#include "driver/image_build.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "compress/compress_test_support.h"
#include "layout/layout_fixture.h"
#include "platform/text_format.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;
using testing::RandomBytes;

std::vector<std::uint8_t> Text(std::size_t size, const char* words) {
    const std::string w = words;
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(w[i % w.size()]);
    return bytes;
}

// A main BIOS of every kind of module that sequential placement knows.
void AddVariedModules(LayoutFixture& f) {
    f.AddModule("plain.bin", RandomBytes(0x1001, 1), 0x01, 0x80);
    f.Module(0).Header.SetDestOffset(0x0000);
    f.Module(0).Header.SetDestSegment(0xE000);
    f.AddModule("setup.bin", Text(0x3000, "setup menu item "), 0x02);
    const std::uint32_t mini = f.AddModule("mini.bin", RandomBytes(0x400, 2), 0x03);
    f.Module(mini).CompressionFlags = 0x02;
    const std::uint32_t vga = f.AddModule("vga.rom", Text(0x900, "option rom image "), 0x20);
    f.Module(vga).Header.SetDestOffset(0x8086);
    f.Module(vga).Header.SetDestSegment(0x0102);
    f.AddLink(0x8086, 0x0103, 0x8086, 0x0102);
    const std::uint32_t aligned = f.AddModule("aligned.bin", RandomBytes(0x123, 3), 0x05, 0x80);
    f.Module(aligned).Alignment = 0x40;
    ++f.ctx.description.ConstrainedModuleCount;
}

// The file whose bytes each chain entry holds, in chain order ("" for a link header).
std::vector<std::string> ChainFiles(LayoutFixture& f) {
    std::vector<std::string> files;
    for (std::uint32_t m = 0; m <= f.ctx.description.ModuleCount; ++m) {
        files.push_back(f.Module(m).FileName);
    }
    return files;
}

// Everything every built image must satisfy.
testing::MainBiosCheck ExpectSoundImage(LayoutFixture& f, testing::LinkForm form) {
    const BuildDescription& d = f.ctx.description;
    const std::vector<std::uint8_t> rom = f.Rom();
    EXPECT_EQ(rom.size(), d.Bios.BiosSize);
    const auto top = std::vector<std::uint8_t>(rom.end() - d.Bios.BootBlockSize, rom.end());
    EXPECT_EQ(testing::ReadBytes(f.dir.File(d.Bios.BiosTag + ".int")), top);
    EXPECT_EQ(testing::SumDwords(top), 0u);

    const testing::MainBiosCheck check = testing::CheckMainBios(rom, form);
    for (const std::string& p : check.problems) ADD_FAILURE() << p;
    const std::vector<std::string> files = ChainFiles(f);
    EXPECT_EQ(check.chain.size(), files.size());
    for (std::size_t i = 0; i < check.chain.size() && i < files.size(); ++i) {
        if (check.chain[i].attributes & 0x40) continue;
        EXPECT_EQ(testing::HoldsFile(rom, check.chain[i], testing::ReadBytes(files[i])), "")
            << files[i];
    }
    return check;
}

TEST(ImageBuild, SequentialBuildConsoleAndImage) {
    LayoutFixture f;
    // An existing longer ROM file is replaced by exactly BiosSize bytes.
    testing::WriteBytes(f.ctx.description.Bios.RomFile, RandomBytes(0x50000, 9));
    AddVariedModules(f);
    BuildRomImage(f.ctx);
    const auto check = ExpectSoundImage(f, testing::LinkForm::Real16);
    ASSERT_EQ(check.chain.size(), 7u);

    const BuildDescription& d = f.ctx.description;
    std::vector<std::string> expected = {
        "Generating boot block image...",
        "BIOS has no Extended Boot Block.",
        "Initializing NVRAM space below boot block...",
        "Generating final ROM image " + d.Bios.RomFile + "...",
        " Creating main BIOS header",
    };
    auto at = [&](std::size_t i) { return StrFormat(" at %x", check.chain[i].header + 0xC0000); };
    for (std::size_t i = 0; i < 6; ++i) {
        if (i == 4) {
            expected.push_back(" Inserting linked addon-rom" + at(i));
        } else {
            expected.push_back(StrFormat(" Inserting %s as module id %02X",
                                         f.Module(i).FileName.c_str(),
                                         f.Module(i).Header.ModuleId()) +
                               at(i));
        }
    }
    expected.push_back("");
    expected.push_back("Generating Image Information Module ...");
    expected.push_back(" Inserting " + f.dir.File("TEST1.inf") + " as module id 80" + at(6));
    EXPECT_EQ(f.Lines(), expected);

    // Header directly below the NVRAM area, modules downwards in script order.
    EXPECT_EQ(check.main_header, 0x33FEAu);
    EXPECT_EQ(check.chain[0].header, 0x33FE0u - 0x1004 - 20);
    EXPECT_EQ(check.chain[0].dest_segment, 0xE000);
    EXPECT_EQ(check.chain[2].attributes & 0x80, 0x80);  // minsize kept it as it is
    EXPECT_EQ(check.chain[4].header, check.chain[3].header - 20);
    EXPECT_EQ((check.chain[5].data()) % 0x40, 0u);
    EXPECT_EQ(check.chain[6].header % 8, 0u);
    EXPECT_EQ(check.chain[6].module_id, 0x80);
    EXPECT_EQ(check.region_start, check.chain[6].header);
    EXPECT_EQ(check.length_field, (0x34000 - check.chain[6].header) / 8);
    const std::vector<std::uint8_t> rom = f.Rom();
    EXPECT_EQ(rom[check.region_start - 1], 0xFF);
    EXPECT_EQ(rom[0], 0xFF);  // no phase writes the bottom of the image
    EXPECT_EQ(f.ctx.image.ImageBuffer.size(), 0u);  // released
}

// The encoder's window carries over from one run to the next, so the stored bytes show
// that every compression ran where the build calls for it: the EBB module's once, then
// each main BIOS module's twice (sizing, insertion). The second module is a piece of
// the first with one byte changed, so what the first left in the window decides which of
// equal matches its runs take.
TEST(ImageBuild, CompressionsRunInBuildOrder) {
    LayoutFixture f;
    f.ctx.description.Bios.MaxEbbSize = 0x1000;
    const auto ebb = Text(0x900, "early init table ");
    const std::vector<std::uint8_t> a = lzh::testing::SyntheticText(20000, 1);
    std::vector<std::uint8_t> b(a.begin() + 3256, a.begin() + 3256 + 128);
    b[64] ^= 1;
    EbbModuleRecord record;
    record.FileName = f.dir.File("ebb.bin");
    testing::WriteBytes(record.FileName, ebb);
    record.Header.SetModuleId(0x31);
    f.ctx.description.EbbModuleList.push_back(record);
    f.AddModule("a.bin", a, 0x01);
    f.AddModule("b.bin", b, 0x02);
    BuildRomImage(f.ctx);
    const auto check = ExpectSoundImage(f, testing::LinkForm::Real16);
    ASSERT_EQ(check.chain.size(), 3u);

    const auto ref = testing::ReferenceCompress({ebb, a, a, b, b});
    ASSERT_NE(testing::ReferenceCompress({b})[0].data, ref[4].data);
    const std::vector<std::uint8_t> rom = f.Rom();
    auto stored = [&](std::uint32_t data, std::size_t size) {
        return std::vector<std::uint8_t>(rom.begin() + data, rom.begin() + data + size);
    };
    const std::uint32_t ebb_data = 0x40000 - 0x8000 - 0x1000 + 24 + 20;
    EXPECT_EQ(stored(ebb_data, ref[0].data.size()), ref[0].data);
    EXPECT_EQ(stored(check.chain[0].data(), ref[2].data.size()), ref[2].data);
    EXPECT_EQ(stored(check.chain[1].data(), ref[4].data.size()), ref[4].data);
}

// A verbose build traces every step; the compatibility form differs in the header's
// version and flags bytes only.
TEST(ImageBuild, VerboseAndCompatibilityBuilds) {
    std::vector<std::vector<std::uint8_t>> roms;
    std::vector<std::string> consoles;
    std::uint32_t info_size = 0;
    for (bool compatibility : {false, true}) {
        LayoutFixture f;
        f.ctx.options.VerboseMode = true;
        f.ctx.options.CompatibilityMode = compatibility;
        f.ctx.description.RomImage.RomImageVersion = 0x21;
        f.ctx.description.RomImage.RomImageFlags = 0x02;
        f.AddModule("a.bin", RandomBytes(0x1001, 1), 0x01, 0x80);
        BuildRomImage(f.ctx);
        const auto check = ExpectSoundImage(f, testing::LinkForm::Real16);
        ASSERT_EQ(check.chain.size(), 2u);
        info_size = check.chain[1].data_size + 20;
        roms.push_back(f.Rom());
        std::string text = f.console.str();
        for (std::size_t at; (at = text.find(f.dir.path().string())) != std::string::npos;) {
            text.replace(at, f.dir.path().string().size(), "DIR");
        }
        consoles.push_back(text);
    }
    EXPECT_EQ(consoles[0], consoles[1]);
    EXPECT_EQ(testing::SplitLines(consoles[0]),
              (std::vector<std::string>{
                  "Generating boot block image...",
                  "BIOS has no Extended Boot Block.",
                  "Initializing NVRAM space below boot block...",
                  "Generating final ROM image DIR/out.rom...",
                  " Creating main BIOS header",
                  "",
                  "Top of BIOS (main header end) = f4000",
                  "Placing main BIOS header at f3fe0",
                  "",
                  " DIR/a.bin (module id 1) size will be 1018",
                  " Inserting DIR/a.bin as module id 01 at f2fc8",
                  "",
                  "Generating Image Information Module ...",
                  StrFormat(" DIR/TEST1.inf (module id 80) size will be %x", info_size),
                  StrFormat(" Inserting DIR/TEST1.inf as module id 80 at %x",
                            (0xF2FC8 - info_size) & ~7u),
              }));
    EXPECT_EQ(roms[0][0x33FEA - 5], 0x21);
    EXPECT_EQ(roms[1][0x33FEA - 5], 0x00);
    EXPECT_EQ(roms[0][0x33FEA - 4], 0x02);
    EXPECT_EQ(roms[1][0x33FEA - 4], 0x00);
    std::size_t differing = 0;
    for (std::size_t i = 0; i < roms[0].size(); ++i) differing += roms[0][i] != roms[1][i];
    // The version and flags bytes, and the checksum bytes that balance them.
    EXPECT_GE(differing, 3u);
    EXPECT_LE(differing, 6u);
}

TEST(ImageBuild, ThirtyTwoBitBuildLinksByImageOffset) {
    LayoutFixture f(0x200000, 0x10000, 0x10000);
    f.Use32Bit();
    f.ctx.description.Bios.MaxEbbSize = 0x1000;
    AddVariedModules(f);
    BuildRomImage(f.ctx);
    const auto check = ExpectSoundImage(f, testing::LinkForm::Flat32);
    ASSERT_EQ(check.chain.size(), 7u);
    const std::uint32_t top = 0x200000 - 0x10000 - 0x1000 - 0x10000;
    EXPECT_EQ(check.main_header, top - 22);
    EXPECT_EQ(load_le32(&f.Rom()[check.main_header + 18]), check.chain[0].header + 8);
    EXPECT_EQ(f.Rom()[check.main_header - 4], 0x01);  // Mode32Bit in the flags byte
    EXPECT_EQ(f.Lines().at(6), StrFormat(" Inserting %s as module id 02 at %x",
                                         f.Module(1).FileName.c_str(), check.chain[1].header));
}

TEST(ImageBuild, FailuresEndTheRunWithTheirMessage) {
    struct Case {
        const char* what;
        std::function<void(LayoutFixture&)> setup;
        std::string message;
        std::string last_progress;  // the line printed before the report
    } cases[] = {
        {"ROM file in a missing folder",
         [](LayoutFixture& f) { f.ctx.description.Bios.RomFile = f.dir.File("no/such/out.rom"); },
         "Cannot create file: {dir}/no/such/out.rom",
         " Inserting {dir}/TEST1.inf as module id 80 at f3f68"},
        {"ROM file that cannot be written",
         [](LayoutFixture& f) { f.ctx.description.Bios.RomFile = "/dev/full"; },
         "Cannot write to ROM file", " Inserting {dir}/TEST1.inf as module id 80 at f3f68"},
        // The phases' own limits come first, after their progress line, even when the
        // region would not fit the image either.
        {"boot block above 64 KB and larger than the image",
         [](LayoutFixture& f) {
             f.ctx.description.Bios.BiosSize = 0x10000;
             f.ctx.description.Bios.BootBlockSize = 0x20000;
             f.ctx.description.Bios.NvramSize = 0;
         },
         "Boot block size must be a multiple of 4 between 4 and 65536",
         "Generating boot block image..."},
        {"EBB size not a multiple of 4 and larger than the image",
         [](LayoutFixture& f) {
             f.ctx.description.Bios.BiosSize = 0x20000;
             f.ctx.description.Bios.BootBlockSize = 0x10000;
             f.ctx.description.Bios.MaxEbbSize = 0x10012;
         },
         "Extended Boot Block size must be a multiple of 4",
         "Generating Extended Boot Block image..."},
        {"no room for the main BIOS header",
         [](LayoutFixture& f) {
             f.ctx.description.Bios.BiosSize = 0x10020;
             f.ctx.description.Bios.BootBlockSize = 0x10000;
             f.ctx.description.Bios.NvramSize = 0x10;
         },
         "BIOS size 10020 leaves 10 bytes below the boot block (bbsize 10000), Extended Boot "
         "Block (maxebbsize 0) and NVRAM (nvramsize 10), too few for the main BIOS header of "
         "20 bytes",
         " Creating main BIOS header"},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        f.AddModule("a.bin", RandomBytes(0x20, 1), 0x01, 0x80);
        c.setup(f);
        EXPECT_EQ(f.FatalOf([&] { BuildRomImage(f.ctx); }), f.InDir(c.message)) << c.what;
        auto lines = f.Lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines.back(), "FATAL ERROR: " + f.InDir(c.message));
        EXPECT_EQ(lines[lines.size() - 2], "");
        if (lines.size() >= 3) {
            EXPECT_EQ(lines[lines.size() - 3], f.InDir(c.last_progress)) << c.what;
        }
    }
}

}  // namespace
}  // namespace fwforge
