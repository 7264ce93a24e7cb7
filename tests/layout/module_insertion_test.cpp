#include "layout/module_insertion.h"

#include <gtest/gtest.h>

#include <functional>

#include "layout/layout_fixture.h"
#include "layout/main_header.h"
#include "layout/module_sizing.h"
#include "platform/text_format.h"
#include "support/image_checks.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;
using testing::RandomBytes;
using testing::ReferenceCompress;

// A sequential build's main BIOS so far: header at the top of 0x34000.
void StartMainBios(LayoutFixture& f) {
    f.PrepareImage(0x34000);
    CreateMainHeader(f.ctx);
    f.console.str("");
}

void SizeAndInsert(LayoutFixture& f, std::uint32_t m) {
    SizeModule(f.ctx, m);
    InsertModule(f.ctx, m);
}

std::vector<std::uint8_t> Slice(const std::vector<std::uint8_t>& bytes, std::size_t at,
                                std::size_t size) {
    return {bytes.begin() + at, bytes.begin() + at + size};
}

TEST(InsertModule, ModulesStackDownwardsAndChain) {
    LayoutFixture f;
    StartMainBios(f);
    const auto a = RandomBytes(0x101, 1);
    const auto b = RandomBytes(0x40, 2);
    SizeAndInsert(f, f.AddModule("a.bin", a, 0x01, 0x80));
    SizeAndInsert(f, f.AddModule("b.bin", b, 0x02, 0x80));
    const std::uint32_t a_header = 0x33FE0 - 0x104 - 20;
    const std::uint32_t b_header = a_header - 0x40 - 20;
    EXPECT_EQ(f.Lines(), (std::vector<std::string>{
                             " Inserting " + f.Module(0).FileName + " as module id 01 at " +
                                 StrFormat("%x", a_header + 0xC0000),
                             " Inserting " + f.Module(1).FileName + " as module id 02 at " +
                                 StrFormat("%x", b_header + 0xC0000),
                         }));
    EXPECT_EQ(f.ctx.image.PlacementCursor, b_header);
    EXPECT_EQ(Slice(f.Image(), a_header + 20, a.size()), a);
    EXPECT_EQ(f.Image()[a_header + 20 + 0x101], 0xFF);  // rounding bytes keep the image
    EXPECT_EQ(f.Module(0).Header.DataSize(), 0x104u);
    EXPECT_EQ(f.Module(0).InsertionIndex, 0);
    EXPECT_EQ(f.Module(1).InsertionIndex, 1);
    FinishMainHeader(f.ctx, PlacementMode::Sequential);
    const auto check = testing::CheckMainBios(f.Image(), testing::LinkForm::Real16);
    EXPECT_TRUE(check.problems.empty());
    ASSERT_EQ(check.chain.size(), 2u);
    EXPECT_EQ(check.chain[0].header, a_header);
    EXPECT_EQ(check.chain[1].header, b_header);
}

TEST(InsertModule, CompressedModulesStoreTheEncodersResult) {
    LayoutFixture f;
    StartMainBios(f);
    std::vector<std::uint8_t> text(0x4000);
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = "boot services table "[i % 20];
    SizeAndInsert(f, f.AddModule("t.bin", text, 0x03));
    // Sizing compresses once, insertion again: the second run is what is stored.
    const auto ref = ReferenceCompress({text, text});
    const std::uint32_t d = ref[1].result.total;
    const std::uint32_t header = f.ctx.image.PlacementCursor;
    EXPECT_EQ(header, 0x33FE0 - testing::Round4(d) - 20);
    EXPECT_EQ(Slice(f.Image(), header + 20, d), ref[1].data);
    EXPECT_EQ(f.Module(0).Header.ModuleAttributes() & 0x80, 0);
}

// In sequential placement the alignment widens the module so its data starts on a
// multiple of the alignment; DataSize includes the added bytes.
TEST(InsertModule, AlignmentWidensTheModule) {
    for (std::uint8_t alignment : {0x80, 0x10, 0x07}) {
        LayoutFixture f;
        StartMainBios(f);
        f.AddModule("pad.bin", RandomBytes(0x2C, 1), 0x01, 0x80);
        const std::uint32_t m = f.AddModule("al.bin", RandomBytes(0x105, 2), 0x02, 0x80);
        f.Module(m).Alignment = alignment;
        SizeAndInsert(f, 0);
        const std::uint32_t top = f.ctx.image.PlacementCursor;
        SizeAndInsert(f, m);
        const std::uint32_t data = f.ctx.image.PlacementCursor + 20;
        EXPECT_EQ(data % alignment, 0u) << int(alignment);
        EXPECT_EQ(f.Module(m).Header.DataSize(), top - data);
        EXPECT_EQ(f.Module(m).Header.DataSize(), 0x108 + (top - 0x108) % alignment);
        FinishMainHeader(f.ctx, PlacementMode::Sequential);
        EXPECT_TRUE(testing::CheckMainBios(f.Image(), testing::LinkForm::Real16).problems.empty());
    }
}

// MaxModuleSize: the module takes exactly that much; after an uncompressed file come
// 0xFF bytes, after compressed data the rest of the file and then 0xFF.
TEST(InsertModule, MaxModuleSizeFillsFromTheModuleBuffer) {
    for (bool compressed : {false, true}) {
        LayoutFixture f;
        StartMainBios(f);
        std::vector<std::uint8_t> file(0x80);
        for (std::size_t i = 0; i < file.size(); ++i) file[i] = static_cast<std::uint8_t>(i % 4);
        const std::uint32_t m = f.AddModule("m.bin", file, 0x04, compressed ? 0 : 0x80);
        f.Module(m).MaxModuleSize = 0x100;
        SizeAndInsert(f, m);
        const std::uint32_t header = f.ctx.image.PlacementCursor;
        EXPECT_EQ(header, 0x33FE0u - 0x100 - 20);
        std::vector<std::uint8_t> expected(0x100, 0xFF);
        std::copy(file.begin(), file.end(), expected.begin());
        if (compressed) {
            const auto ref = ReferenceCompress({file, file})[1];
            std::copy(ref.data.begin(), ref.data.end(), expected.begin());
        }
        EXPECT_EQ(Slice(f.Image(), header + 20, 0x100), expected) << compressed;
    }
}

TEST(InsertModule, CompressedMarkOnlyForTheImageInformationModuleInVerbose) {
    struct Case {
        std::uint8_t id;
        bool verbose, mark;
    } cases[] = {{0x80, true, true}, {0x80, false, false}, {0x81, true, false}};
    for (const Case& c : cases) {
        LayoutFixture f;
        f.ctx.options.VerboseMode = c.verbose;
        StartMainBios(f);
        const std::uint32_t m = f.AddModule("i.bin", RandomBytes(0x20, 1), c.id);
        InsertModule(f.ctx, m);
        const std::string line = f.Lines().at(0);
        EXPECT_EQ(
            line.find(StrFormat("module id %02X (compressed) at ", c.id)) != std::string::npos,
            c.mark)
            << line;
    }
}

TEST(InsertModule, ImageInformationHeaderStartsOnEightBytes) {
    LayoutFixture f;
    StartMainBios(f);
    f.AddModule("a.bin", RandomBytes(0x24, 1), 0x01, 0x80);
    SizeAndInsert(f, 0);
    // The record after the last module is the image information module's.
    ModuleEntry& info = f.Module(1);
    info.FileName = f.dir.File("info.bin");
    testing::WriteBytes(info.FileName, RandomBytes(42, 7));
    info.Header.SetModuleId(0x80);
    info.Header.SetModuleAttributes(0x80);
    SizeAndInsert(f, 1);
    EXPECT_EQ(f.ctx.image.PlacementCursor % 8, 0u);
    EXPECT_EQ(f.ctx.image.PlacementCursor, (0x33FE0u - 0x24 - 20 - 44 - 20) & ~7u);
}

TEST(InsertModule, LinkedAddonRomsFollowTheirParent) {
    for (bool flat : {false, true}) {
        LayoutFixture f;
        if (flat) f.Use32Bit();
        StartMainBios(f);
        const std::uint32_t parent = f.AddModule("vga.rom", RandomBytes(0x200, 3), 0x20, 0x80);
        f.AddLink(0x10DE, 1, 0, 0);
        f.AddLink(0x10DE, 2, 0, 0);
        for (std::uint32_t m = 0; m < 3; ++m) SizeAndInsert(f, m);
        const std::uint32_t parent_header = 0x33FE0 - 0x200 - 20;
        EXPECT_EQ(f.Lines().at(1), StrFormat(" Inserting linked addon-rom at %x",
                                             parent_header - 20 + (flat ? 0 : 0xC0000)));
        EXPECT_EQ(f.Module(2).InsertionIndex, 2);
        FinishMainHeader(f.ctx, PlacementMode::Sequential);
        const auto check = testing::CheckMainBios(
            f.Image(), flat ? testing::LinkForm::Flat32 : testing::LinkForm::Real16);
        EXPECT_TRUE(check.problems.empty());
        ASSERT_EQ(check.chain.size(), 3u);
        EXPECT_EQ(check.chain[0].header, parent_header);
        EXPECT_EQ(check.chain[1].header, parent_header - 20);
        EXPECT_EQ(check.chain[2].header, parent_header - 40);
        EXPECT_EQ(check.chain[2].data_size, 0x200u);
        EXPECT_EQ(check.chain[2].dest_segment, 2);
        EXPECT_EQ(f.Module(parent).PlacedSize, 0x214u + 40);
    }
}

// Module 0x15 with an alignment gets the descriptor block of its data patched: g (GDT
// offset) at 4, p (pointer) at 6, b (base) at 8; the 32-bit value b + A goes to p + 2 and
// the code and data descriptors to b + g and b + g + 8. Descriptors that fall past the
// data are written into the module buffer only; without an alignment nothing is patched.
TEST(InsertModule, Module15DescriptorPatching) {
    struct Case {
        std::uint8_t alignment;
        std::uint16_t base;
    } cases[] = {{0x40, 0x30}, {0x10, 0x7C}, {0, 0x30}};
    for (const Case& c : cases) {
        LayoutFixture f;
        StartMainBios(f);
        std::vector<std::uint8_t> bytes(0x80, 0);
        store_le16(&bytes[4], 0x20);
        store_le16(&bytes[6], 0x10);
        store_le16(&bytes[8], c.base);
        const std::uint32_t m = f.AddModule("gdt.bin", bytes, 0x15, 0x80);
        f.Module(m).Alignment = c.alignment;
        SizeAndInsert(f, m);
        const std::uint32_t data = f.ctx.image.PlacementCursor + 20;
        const std::uint32_t s = f.Module(m).Header.DataSize();
        const std::uint32_t a = data - 0x40000;
        if (c.alignment != 0) {
            ASSERT_EQ(data % c.alignment, 0u);
            store_le32(&bytes[0x12], a + c.base);
        }
        if (c.alignment != 0 && c.base + 0x30u <= bytes.size()) {
            const std::uint8_t code[] = {
                std::uint8_t(s), std::uint8_t(s >> 8), std::uint8_t(a), std::uint8_t(a >> 8),
                std::uint8_t(a >> 16), 0x9B, std::uint8_t((s >> 16) & 0xF), std::uint8_t(a >> 24)};
            std::copy(std::begin(code), std::end(code), bytes.begin() + c.base + 0x20);
            std::copy(std::begin(code), std::end(code), bytes.begin() + c.base + 0x28);
            bytes[c.base + 0x2D] = 0x93;
        }
        EXPECT_EQ(Slice(f.Image(), data, bytes.size()), bytes) << int(c.alignment);
        EXPECT_TRUE(std::all_of(f.Image().begin() + data + bytes.size(),
                                f.Image().begin() + data + s,
                                [](std::uint8_t v) { return v == 0xFF; }));
    }
}

TEST(InsertModule, FailuresEndTheRunWithTheirMessage) {
    struct Case {
        const char* what;
        std::function<void(LayoutFixture&)> run;
        std::string message;
    } cases[] = {
        {"module below offset 0",
         [](LayoutFixture& f) {
             SizeAndInsert(f, f.AddModule("big.bin", RandomBytes(0x33FD0, 1), 1, 0x80));
         },
         "Out of ROM space!"},
        {"link header with 20 bytes left",
         [](LayoutFixture& f) {
             SizeAndInsert(f, f.AddModule("p.rom", RandomBytes(0x33FE0 - 40, 1), 0x20, 0x80));
             SizeAndInsert(f, f.AddLink(1, 2, 3, 4));
         },
         "Not enough free space in ROM file to insert module"},
        {"link after another id",
         [](LayoutFixture& f) {
             SizeAndInsert(f, f.AddModule("a.bin", {1, 2, 3, 4}, 0x05, 0x80));
             InsertLinkedRom(f.ctx, f.AddLink(1, 2, 3, 4));
         },
         "Addon-rom must precede linked modules"},
        {"link right after the main header",
         [](LayoutFixture& f) { InsertLinkedRom(f.ctx, f.AddLink(1, 2, 3, 4)); },
         "Addon-rom must precede linked modules"},
        {"maximum below the data at insertion",
         [](LayoutFixture& f) {
             const std::uint32_t m = f.AddModule("a.bin", RandomBytes(0x41, 1), 0x05, 0x80);
             f.Module(m).MaxModuleSize = 0x40;
             InsertModule(f.ctx, m);
         },
         "MaxModuleSize is too small for this module"},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        StartMainBios(f);
        const std::string fatal = f.FatalOf([&] { c.run(f); });
        EXPECT_EQ(fatal, c.message) << c.what;
        const std::string out = f.console.str();
        EXPECT_EQ(out.substr(out.size() - fatal.size() - 15), "\nFATAL ERROR: " + fatal + "\n");
    }
}

}  // namespace
}  // namespace fwforge
