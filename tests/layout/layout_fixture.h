#pragma once
// A build context with a description filled in code, files in a temporary folder and
// the console captured, for tests of the layout engine and the image build.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "compress/module_compressor.h"
#include "context/build_context.h"
#include "layout/gap_map.h"
#include "layout/main_header.h"
#include "platform/byte_order.h"
#include "support/test_files.h"

namespace fwforge::testing {

class LayoutFixture {
public:
    // A 16-bit build of `bios_size` bytes with a 64 KB boot block file, boot block of
    // `bb_size` bytes and `nvram_size` bytes of NVRAM.
    explicit LayoutFixture(std::uint32_t bios_size = 0x40000, std::uint32_t bb_size = 0x8000,
                           std::uint32_t nvram_size = 0x4000)
        : ctx(console) {
        BuildDescription& d = ctx.description;
        d.Bios.BiosSize = bios_size;
        d.Bios.BootBlockSize = bb_size;
        d.Bios.NvramSize = nvram_size;
        d.Bios.BiosTag = "TEST1";
        d.Bios.RomFile = dir.File("out.rom");
        d.Init.BootBlockFile = dir.File("boot.bin");
        ctx.options.OutputPath = dir.path().string();
        std::vector<std::uint8_t> boot = RandomBytes(0x10000, 77);
        WriteBytes(d.Init.BootBlockFile, boot);
    }

    void Use32Bit() {
        ctx.description.RomImage.Use32BitMode = true;
        ctx.description.RomImage.RomImageFlags |= 0x01;
    }

    // Appends a module record whose file holds `bytes`; returns its index.
    std::uint32_t AddModule(const std::string& name, const std::vector<std::uint8_t>& bytes,
                            std::uint8_t id, std::uint8_t attributes = 0) {
        BuildDescription& d = ctx.description;
        ModuleEntry& m = d.ModuleTable[d.ModuleCount];
        m.FileName = dir.File(name);
        WriteBytes(m.FileName, bytes);
        m.Header.SetModuleId(id);
        m.Header.SetModuleAttributes(attributes);
        m.Contiguous = (attributes & 0x80) ? 1 : 0;
        return d.ModuleCount++;
    }

    // Appends a linked add-on ROM record (no file) for the parent with these ids.
    std::uint32_t AddLink(std::uint16_t vendor, std::uint16_t device, std::uint16_t parent_vendor,
                          std::uint16_t parent_device) {
        BuildDescription& d = ctx.description;
        ModuleEntry& m = d.ModuleTable[d.ModuleCount];
        m.Header.SetModuleId(0x20);
        m.Header.SetModuleAttributes(0x40);
        m.Header.SetDestOffset(vendor);
        m.Header.SetDestSegment(device);
        m.LinkVendorId = parent_vendor;
        m.LinkDeviceId = parent_device;
        return d.ModuleCount++;
    }

    // A fresh image of BiosSize bytes (0xFF) with the cursor at `cursor`, for tests of
    // single layout steps.
    void PrepareImage(std::uint32_t cursor) {
        const BuildDescription& d = ctx.description;
        ctx.image.ImageBuffer.assign(d.Bios.BiosSize, 0xFF);
        ctx.image.PlacementCursor = cursor;
        ctx.image.AddressBase = d.RomImage.Use32BitMode ? 0 : 0x100000u - d.Bios.BiosSize;
    }

    // Runs `step` and returns the text of the fatal report it ends with ("" if none).
    template <typename Step>
    std::string FatalOf(Step step) {
        try {
            step();
        } catch (const FatalError& e) {
            return e.what();
        }
        return "";
    }

    std::vector<std::string> Lines() const { return SplitLines(console.str()); }

    // `text` with every "{dir}" replaced by the temporary folder.
    std::string InDir(std::string text) const {
        for (std::size_t at; (at = text.find("{dir}")) != std::string::npos;) {
            text.replace(at, 5, dir.path().string());
        }
        return text;
    }

    std::vector<std::uint8_t> Rom() const { return ReadBytes(ctx.description.Bios.RomFile); }
    const std::vector<std::uint8_t>& Image() const { return ctx.image.ImageBuffer; }
    ModuleEntry& Module(std::uint32_t index) { return ctx.description.ModuleTable[index]; }

    TempDir dir;
    std::ostringstream console;
    BuildContext ctx;
};

struct ReferenceRun {
    lzh::CompressResult result;
    std::vector<std::uint8_t> data;  // the first result.total bytes of the output
};

// What the build's encoder gives for `inputs` compressed in this order, from a fresh
// encoder: the window carries over between runs, so a reference must replay every
// earlier compression of the build (sizing and insertion alike).
inline std::vector<ReferenceRun> ReferenceCompress(
    const std::vector<std::vector<std::uint8_t>>& inputs) {
    lzh::Encoder encoder;
    std::vector<ReferenceRun> runs;
    for (const auto& input : inputs) {
        std::vector<std::uint8_t> out(input.size() + 9, 0xFF);
        const lzh::CompressResult result = encoder.CompressModule(input, out);
        out.resize(result.total);
        runs.push_back({result, out});
    }
    return runs;
}

// Gap maps set up directly, for tests of the placement steps that take room from them.
struct GapSpan {
    std::uint32_t start, end;  // image offsets
    bool operator==(const GapSpan&) const = default;
};

inline void SetGaps(LayoutFixture& f, const std::vector<GapSpan>& spans) {
    GapMap& map = f.ctx.layout.gaps;
    map.GapTable.clear();
    for (const GapSpan& s : spans) map.GapTable.push_back({s.end, s.start, s.end - s.start});
    map.GapCount = static_cast<std::uint32_t>(spans.size());
    OrderGapsBySize(map);
}

// A gap-placement image of 256 KB with the main BIOS header at the top of the free area
// (0x33FE0) and the given gaps below it; the console starts empty.
inline void PrepareGaps(LayoutFixture& f, const std::vector<GapSpan>& gaps) {
    f.ctx.description.RomHoleCount = 1;  // gap placement
    f.PrepareImage(0x34000);
    CreateMainHeader(f.ctx);
    SetGaps(f, gaps);
    f.console.str("");
}

// The GapCount gaps of the map; each one's size must match its ends.
inline std::vector<GapSpan> GapSpans(const LayoutFixture& f) {
    std::vector<GapSpan> spans;
    const GapMap& map = f.ctx.layout.gaps;
    EXPECT_EQ(map.GapTable.size(), map.GapCount);
    for (std::uint32_t i = 0; i < map.GapCount && i < map.GapTable.size(); ++i) {
        const GapEntry& g = map.GapTable[i];
        EXPECT_EQ(g.Size, g.End - g.Start);
        spans.push_back({g.Start, g.End});
    }
    return spans;
}

inline std::uint32_t Round4(std::uint64_t v) { return static_cast<std::uint32_t>((v + 3) & ~3ull); }

}  // namespace fwforge::testing
