#include "layout/module_sizing.h"

#include <gtest/gtest.h>

#include <functional>

#include "layout/layout_fixture.h"
#include "layout/module_insertion.h"

namespace fwforge {
namespace {

using testing::LayoutFixture;
using testing::RandomBytes;
using testing::ReferenceCompress;
using testing::Round4;

std::vector<std::uint8_t> Text(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = "firmware module text "[i % 21];
    return bytes;
}

// PlacedSize: data (compressed total + 2, or the file), MaxModuleSize, rounding to 4,
// alignment reserve, 20-byte header.
TEST(SizeModule, SizesFollowTheStoredForm) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> bytes;
        std::uint8_t attributes, flags;
        std::uint32_t max_size;
        std::uint8_t alignment;
        bool gap = false;  // gap placement (a ROM hole in the script)
    } cases[] = {
        {"uncompressed 0x1001", RandomBytes(0x1001, 1), 0x80, 0, 0, 0},
        {"already compressed", RandomBytes(0x333, 2), 0x00, 0x01, 0, 0},
        {"compressed text", Text(0x3000), 0x00, 0, 0, 0},
        {"compressed, aligned 0x10", Text(0x3000), 0x00, 0, 0, 0x10},
        {"uncompressed, aligned 7", RandomBytes(0x101, 3), 0x80, 0, 0, 7},
        {"uncompressed, aligned 7, gap placement", RandomBytes(0x101, 3), 0x80, 0, 0, 7, true},
        {"uncompressed, aligned 10, gap placement", RandomBytes(0x101, 3), 0x80, 0, 0, 0x10, true},
        {"minsize, text", Text(0x3000), 0x00, 0x02, 0, 0},
        {"minsize, random", RandomBytes(0x800, 4), 0x00, 0x02, 0, 0},
        {"max size above data", RandomBytes(0x101, 5), 0x80, 0, 0x203, 0},
        {"max size equal to file", RandomBytes(0x200, 6), 0x80, 0, 0x200, 0},
    };
    for (const Case& c : cases) {
        LayoutFixture f;
        const std::uint32_t m = f.AddModule("m.bin", c.bytes, 0x05, c.attributes);
        f.Module(m).CompressionFlags = c.flags;
        f.Module(m).MaxModuleSize = c.max_size;
        f.Module(m).Alignment = c.alignment;
        if (c.gap) f.ctx.description.RomHoleCount = 1;
        SizeModule(f.ctx, m);

        std::uint64_t s = c.bytes.size();
        bool stored = (c.attributes & 0x80) != 0;
        if (!stored && !(c.flags & 0x01)) {
            const auto ref = ReferenceCompress({c.bytes})[0].result;
            s = ref.total + 2;
            const bool cut_off = ref.stopped && ref.consumed < c.bytes.size();
            if (cut_off || ((c.flags & 0x02) && c.bytes.size() <= s)) {
                s = c.bytes.size();
                stored = true;
            }
        }
        if (c.max_size) s = c.max_size;
        s = Round4(s);
        // A room in gap placement starts on a multiple of 4, from which an alignment that
        // is not one can be Alignment - 1 bytes away.
        if (c.alignment) s = s + c.alignment - (c.alignment % 4 != 0 && c.gap ? 1 : 4);
        EXPECT_EQ(f.Module(m).PlacedSize, s + 20) << c.what;
        EXPECT_EQ((f.Module(m).Header.ModuleAttributes() & 0x80) != 0, stored) << c.what;
    }
}

TEST(SizeModule, WorkedSizes) {
    LayoutFixture f;
    const std::uint32_t m = f.AddModule("m.bin", RandomBytes(0x1001, 9), 0x05, 0x80);
    SizeModule(f.ctx, m);
    EXPECT_EQ(f.Module(m).PlacedSize, 0x1018u);
    // Random bytes do not shrink: the encoder stops with the whole input consumed and a
    // total of 0x7F7 + 9 = 0x800, which stays compressed (s = 0x802, rounded 0x804).
    const std::uint32_t c = f.AddModule("c.bin", RandomBytes(0x7F7, 10), 0x06);
    const std::uint32_t a = f.AddModule("a.bin", RandomBytes(0x7F7, 11), 0x07);
    f.Module(a).Alignment = 0x10;
    SizeModule(f.ctx, c);
    SizeModule(f.ctx, a);
    EXPECT_EQ(f.Module(c).PlacedSize, 0x818u);
    EXPECT_EQ(f.Module(a).PlacedSize, 0x824u);
    EXPECT_EQ(f.Module(c).Header.ModuleAttributes() & 0x80, 0);
    // The limit is inclusive: MaxModuleSize equal to the compressed total + 2 is accepted.
    const auto text = Text(0x2000);
    const std::uint32_t t = f.AddModule("t.bin", text, 0x08, 0);
    const std::uint32_t s = ReferenceCompress({text})[0].result.total + 2;
    f.Module(t).MaxModuleSize = s;
    SizeModule(f.ctx, t);
    EXPECT_EQ(f.Module(t).PlacedSize, Round4(s) + 20);
    // Sizes are 32-bit: fffffff0 + 20 - 4 + 20 wraps to 0x20.
    const std::uint32_t w = f.AddModule("w.bin", {1, 2}, 0x09, 0x80);
    f.Module(w).MaxModuleSize = 0xFFFFFFF0;
    f.Module(w).Alignment = 0x20;
    SizeModule(f.ctx, w);
    EXPECT_EQ(f.Module(w).PlacedSize, 0x20u);
}

TEST(SizeModule, LinkedAddonRomsGrowTheirParent) {
    LayoutFixture f;
    f.ctx.options.VerboseMode = true;
    const std::uint32_t parent = f.AddModule("vga.rom", RandomBytes(0x800, 3), 0x20, 0x80);
    f.Module(parent).Header.SetDestOffset(0x8086);
    f.Module(parent).Header.SetDestSegment(0x1234);
    const std::uint32_t a = f.AddLink(0x10DE, 0x0001, 0x8086, 0x1234);
    const std::uint32_t b = f.AddLink(0x10DE, 0x0002, 0x8086, 0x1234);
    for (std::uint32_t m : {parent, a, b}) SizeModule(f.ctx, m);

    EXPECT_EQ(f.Module(parent).PlacedSize, 0x814u + 2 * 20);
    EXPECT_EQ(f.Module(parent).LinkedRomCount, 2);
    EXPECT_EQ(f.Module(a).PlacementState, Placed);
    EXPECT_EQ(f.Module(a).PlacedSize, 0u);
    const std::string name = f.Module(parent).FileName;
    EXPECT_EQ(f.Lines(), (std::vector<std::string>{
                             " " + name + " (module id 20) size will be 814",
                             "  encountered link: parent = " + name + ", # of siblings = 0",
                             "   vendorID = 10de, deviceID = 1",
                             "    parents total size will be increased by 14",
                             "  encountered link: parent = " + name + ", # of siblings = 1",
                             "   vendorID = 10de, deviceID = 2",
                             "    parents total size will be increased by 14",
                         }));
}

// Links to a parent with a start address move its header down and grow its
// reservation downwards to the paragraph below the new header.
TEST(SizeModule, LinksExtendAFixedParentsReservation) {
    LayoutFixture f;
    const std::uint32_t parent = f.AddModule("p.rom", RandomBytes(0x100, 3), 0x20, 0x80);
    ModuleEntry& p = f.Module(parent);
    p.StartAddress = 0xF0020;
    p.HeaderAddress = 0xF000C;
    p.RomHoleIndex = 0;
    RomHoleEntry& hole = f.ctx.description.RomHoleTable[0];
    hole.StartAddress = 0xF0000;
    hole.Filler = 0;
    hole.OwnerModule = 0;
    f.ctx.description.RomHoleCount = 1;
    SizeModule(f.ctx, parent);
    EXPECT_EQ(hole.Size, 0x120u);
    SizeModule(f.ctx, f.AddLink(1, 2, 3, 4));
    EXPECT_EQ(p.HeaderAddress, 0xEFFF8u);
    EXPECT_EQ(hole.StartAddress, 0xEFFF0u);
    EXPECT_EQ(hole.Size, 0x130u);
}

TEST(SizeModule, FailuresEndTheRunWithTheirMessage) {
    LayoutFixture f;
    const std::string missing = f.dir.File("missing.bin");
    struct Case {
        const char* what;
        std::function<void(LayoutFixture&)> setup;
        std::string message;
    } cases[] = {
        {"link first", [](LayoutFixture& g) { g.AddLink(1, 2, 3, 4); },
         "Link has no parent: "},
        {"link after another id",
         [](LayoutFixture& g) {
             g.AddModule("a.bin", {1, 2, 3}, 0x05, 0x80);
             g.AddLink(1, 2, 3, 4);
         },
         "Link has no parent: "},
        {"missing file",
         [&](LayoutFixture& g) {
             g.AddModule("x.bin", {1}, 0x05, 0x80);
             g.Module(0).FileName = missing;
         },
         "Cannot open module file: " + missing},
        {"max below file",
         [](LayoutFixture& g) {
             g.AddModule("a.bin", RandomBytes(0x201, 1), 0x05, 0x80);
             g.Module(0).MaxModuleSize = 0x200;
         },
         "MaxModuleSize is too small for this module"},
        {"max below compressed",
         [](LayoutFixture& g) {
             const auto bytes = Text(0x2000);
             g.AddModule("a.bin", bytes, 0x05, 0);
             g.Module(0).MaxModuleSize = ReferenceCompress({bytes})[0].result.total + 1;
         },
         "MaxModuleSize is too small for this module"},
    };
    for (const Case& c : cases) {
        LayoutFixture g;
        c.setup(g);
        std::string fatal = g.FatalOf([&] {
            for (std::uint32_t m = 0; m < g.ctx.description.ModuleCount; ++m) SizeModule(g.ctx, m);
        });
        EXPECT_EQ(fatal, c.message) << c.what;
        EXPECT_EQ(g.console.str(), "\nFATAL ERROR: " + c.message + "\n") << c.what;
    }
}

// An encoder stopped by its output bound before the end of the input leaves a stream
// that does not decode to the file: sizing keeps the module as it is, and insertion
// stores the file without compressing it again.
TEST(SizeModule, CutOffCompressionStoresTheFile) {
    LayoutFixture f;
    f.PrepareImage(0x34000);
    const auto bytes = RandomBytes(200000, 12);
    const auto ref = ReferenceCompress({bytes})[0].result;
    ASSERT_TRUE(ref.stopped && ref.consumed < bytes.size());
    const std::uint32_t m = f.AddModule("r.bin", bytes, 0x05);
    SizeModule(f.ctx, m);
    EXPECT_EQ(f.Module(m).PlacedSize, Round4(bytes.size()) + 20);
    EXPECT_EQ(f.Module(m).Header.ModuleAttributes(), 0x80);
    InsertModule(f.ctx, m);
    const std::uint32_t data = f.ctx.image.PlacementCursor + 20;
    EXPECT_EQ(std::vector<std::uint8_t>(f.Image().begin() + data,
                                        f.Image().begin() + data + bytes.size()),
              bytes);
    EXPECT_EQ(f.Image()[data - 5], 0x80);
}

}  // namespace
}  // namespace fwforge
