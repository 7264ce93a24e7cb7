#include "layout/rom_holes.h"

#include <algorithm>
#include <new>

#include "format/block_header.h"
#include "layout/module_insertion.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

constexpr std::uint32_t kNcbHeaderLength = block_header::kSize;

// The gap map tests the end of the highest range against the top in 32 bits, so a range
// whose size wraps past 4 GB passes it; its fill is refused here, where it would write
// past the image.
void CheckRangeInImage(BuildContext& ctx, const RomHoleEntry& hole, std::uint32_t index) {
    if (std::uint64_t{hole.StartAddress} + hole.Size > ctx.image.ImageBuffer.size()) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal(StrFormat(
            "ROMHOLE %u at image offset %x with size %x reaches past the end of the image "
            "(BIOS size %x)",
            index, hole.StartAddress, hole.Size, ctx.description.Bios.BiosSize));
    }
}

void LoadHoleFile(BuildContext& ctx, const RomHoleEntry& hole) {
    const BuildDescription& desc = ctx.description;
    // Positions are ROM addresses until a non-critical block (or the script) has switched
    // to 32-bit mode; from then on they are image offsets.
    const std::uint32_t shown = desc.RomImage.Use32BitMode
                                    ? hole.StartAddress
                                    : hole.StartAddress + 0x100000u - desc.Bios.BiosSize;
    ctx.diag.Printf(" Inserting %s in ROMHOLE at %x\n", hole.FileName.c_str(), shown);
    auto file = ctx.files.Open(hole.FileName);
    if (!file) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal(StrFormat("Cannot open ROMHOLE file: %s", hole.FileName.c_str()));
    }
    const std::optional<std::uint64_t> size = file->Size();
    if (!size) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Cannot read hole file");
    }
    if (*size > hole.Size) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal(StrFormat("ROMHOLE smaller than specified file: %s", hole.FileName.c_str()));
    }
    std::vector<std::uint8_t> buffer;
    try {
        buffer.resize(static_cast<std::size_t>(*size));
    } catch (const std::bad_alloc&) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Out of memory");
    }
    if (!file->ReadExactly(buffer)) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Cannot read hole file");
    }
    std::copy(buffer.begin(), buffer.end(), ctx.image.ImageBuffer.begin() + hole.StartAddress);
}

void BuildNonCriticalBlock(BuildContext& ctx, RomHoleEntry& block) {
    BuildDescription& desc = ctx.description;
    ImageState& image = ctx.image;
    LayoutState& layout = ctx.layout;
    ctx.diag.Printf(" Building non-critical block %s at %x\n", block.Name.c_str(),
                    block.StartAddress);
    // Links inside a block are 32-bit offsets from its start, and the block starts a
    // chain of its own: its first module is linked from nowhere.
    desc.RomImage.Use32BitMode = true;
    image.PlacementCursor = block.StartAddress;
    layout.NcbBase = block.StartAddress;
    layout.SkipNextLink = true;
    const std::uint32_t length = block.Size;
    if (block.Size < kNcbHeaderLength) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Non-critical block too small for header");
    }
    block.StartAddress += kNcbHeaderLength;
    block.Size -= kNcbHeaderLength;
    image.PlacementCursor += kNcbHeaderLength;

    for (std::uint32_t j = 0; j < desc.ModuleCount; ++j) {
        ModuleEntry& m = desc.ModuleTable[j];
        if (m.RomRegion != block.Name) continue;
        ctx.layout.LastRequest = {RoomRegion::Block, j, m.PlacedSize, block.Size};
        if (m.PlacedSize > block.Size) {
            ctx.diag.Printf(" Error inserting module: %s\n", m.FileName.c_str());
            ReleaseImageBuffers(ctx);
            ctx.diag.Fatal("Non-critical block too small for module.");
        }
        const std::uint32_t room = image.PlacementCursor;
        layout.RoomEnd = std::uint64_t{room} + m.PlacedSize;
        InsertModule(ctx, j);
        image.PlacementCursor = room + m.PlacedSize;
        block.StartAddress += m.PlacedSize;
        block.Size -= m.PlacedSize;
    }
    ctx.diag.Print("Non-critical block creation successful, creating header.\n");
    BuildNcbHeader(ctx, layout.NcbBase, length);
}

}  // namespace

void BuildNcbHeader(BuildContext& ctx, std::uint32_t block, std::uint32_t block_length) {
    const bool holds_module = ctx.layout.NcbBase != ctx.image.PlacementCursor - kNcbHeaderLength;
    WriteBlockHeader(ctx.image.ImageBuffer, block, block_header::kNcbSignature, block_length,
                     holds_module, HeaderChecksumRule::WordChecksum);
}

void LoadRomHoles(BuildContext& ctx) {
    BuildDescription& desc = ctx.description;
    const std::uint32_t n = std::min<std::uint32_t>(
        desc.RomHoleCount, static_cast<std::uint32_t>(desc.RomHoleTable.size()));
    for (std::uint32_t r = 0; r < n; ++r) {
        RomHoleEntry& hole = desc.RomHoleTable[r];
        // The reservations of modules with a start address hold those modules.
        if (hole.OwnerModule == kNoIndex) {
            CheckRangeInImage(ctx, hole, r);
            std::fill_n(ctx.image.ImageBuffer.begin() + hole.StartAddress, hole.Size, hole.Filler);
        }
        // A ROM hole with a file was filled, and its range tested, just above.
        if (!hole.FileName.empty()) LoadHoleFile(ctx, hole);
        if (!hole.Name.empty()) BuildNonCriticalBlock(ctx, hole);
    }
}

}  // namespace fwforge
