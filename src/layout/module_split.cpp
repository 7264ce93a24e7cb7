#include "layout/module_split.h"

#include <algorithm>

#include "format/checksum.h"
#include "layout/main_header.h"
#include "layout/module_chain.h"
#include "layout/module_insertion.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

constexpr std::uint32_t kHeader = module_header::kSize;
// A piece after the first needs room for its header and at least 16 data bytes.
constexpr std::uint32_t kLeastPieceData = 16;

[[noreturn]] void NoSpaceLeft(BuildContext& ctx, const ModuleEntry& m) {
    ReleaseImageBuffers(ctx);
    ctx.diag.Fatal(StrFormat("No Space left for module: %s", m.FileName.c_str()));
}

// Rooms come from the gap map, which lies inside the image; this keeps it so whatever
// the map holds.
void CopyPiece(BuildContext& ctx, const ModuleEntry& m, const std::vector<std::uint8_t>& buffer,
               std::size_t source, std::uint32_t length) {
    std::vector<std::uint8_t>& image = ctx.image.ImageBuffer;
    const std::uint64_t at = std::uint64_t{ctx.image.PlacementCursor} + kHeader;
    if (at + length > image.size() || source + length > buffer.size()) {
        ctx.diag.Fatal(
            StrFormat("Piece of module %s at image offset %x with %x bytes reaches past the image "
                      "(BIOS size %zx)",
                      m.FileName.c_str(), ctx.image.PlacementCursor, length, image.size()));
    }
    std::copy_n(buffer.begin() + static_cast<std::ptrdiff_t>(source), length,
                image.begin() + static_cast<std::ptrdiff_t>(at));
}

// The header of a piece that is not the last: its own length, the module's identity and
// SplitPiece. Its link is written when the next piece is linked; DataSize16 and Checksum
// are left as the image holds them.
void WritePieceHeader(BuildContext& ctx, const ModuleEntry& m, std::uint32_t length) {
    std::uint8_t* h = ctx.image.ImageBuffer.data() + ctx.image.PlacementCursor;
    store_le32(h + module_header::DataSize.offset, length);
    h[module_header::ModuleId.offset] = m.Header.id;
    h[module_header::ModuleAttributes.offset] =
        m.Header.attributes | module_attr::SplitPiece;
    store_le16(h + module_header::DestOffset.offset, m.Header.dest_offset);
    store_le16(h + module_header::DestSegment.offset, m.Header.dest_segment);
}

}  // namespace

std::uint32_t TakeSplitRoom(BuildContext& ctx, std::uint32_t minimum, std::uint32_t wanted) {
    GapMap& map = ctx.layout.gaps;
    std::uint32_t largest = 0;
    for (std::uint32_t i = 0; i < map.GapCount; ++i) {
        largest = std::max(largest, map.GapTable[i].Size);
    }
    ctx.layout.LastRequest.needed = wanted;
    ctx.layout.LastRequest.offered = largest;
    for (std::uint32_t i = 0; i < map.GapCount; ++i) {
        GapEntry& gap = map.GapTable[i];
        if (gap.Size < minimum) continue;
        ctx.image.PlacementCursor = gap.Start;
        if (gap.Size <= wanted) {
            const std::uint32_t taken = gap.Size;
            gap.Start = gap.End;
            gap.Size = 0;
            return taken;
        }
        gap.Start += wanted;
        gap.Size -= wanted;
        return wanted;
    }
    return 0;
}

void AddToSplitSum(BuildContext& ctx, std::span<const std::uint8_t> data, std::size_t offset,
                   std::size_t length) {
    ctx.layout.SplitDataSum += DwordSum(data, offset, length);
}

void SplitModule(BuildContext& ctx, std::uint32_t index) {
    BuildDescription& desc = ctx.description;
    ImageState& image = ctx.image;
    LayoutState& layout = ctx.layout;
    ModuleEntry& m = desc.ModuleTable[index];
    const std::uint32_t links = m.LinkedRomCount;
    const std::uint32_t link_headers = kHeader * links;

    desc.RomImage.RomImageFlags |= rom_image_flag::ModuleSplit;
    if (!ctx.options.CompatibilityMode) {
        image.ImageBuffer[layout.MainHeader + main_header::RomImageFlags] =
            desc.RomImage.RomImageFlags;
    }
    m.InsertionIndex = layout.InsertionCounter++;
    ctx.diag.Printf(" Splitting %s as module id %02X\n", m.FileName.c_str(), m.Header.id);

    // The first room holds the headers of the linked add-on ROMs at its bottom, then the
    // first piece's header and at least 16 data bytes.
    ctx.layout.LastRequest = {RoomRegion::Main, index, 0, 0};
    std::uint32_t taken =
        TakeSplitRoom(ctx, link_headers + kHeader + kLeastPieceData, m.PlacedSize);
    if (taken == 0) NoSpaceLeft(ctx, m);
    std::uint64_t piece = taken - link_headers - kHeader;
    image.PlacementCursor += link_headers;

    std::vector<std::uint8_t> buffer;
    const std::uint64_t d = LoadModuleData(ctx, m, false, buffer);
    // 32-bit, as the header holds it: a data length within a few bytes of 4 GB wraps.
    const std::uint32_t s = (static_cast<std::uint32_t>(d) + 3) & ~3u;
    // The pieces copy the rounding bytes too, from what the module buffer holds there.
    if (buffer.size() < s) buffer.resize(s, 0xFF);
    // PlacedSize carries reserves the stored data does not use, so the first room can
    // exceed the module: it then holds the whole module as its only piece, under its
    // full header, and the rest of the room stays unused.
    piece = std::min<std::uint64_t>(piece, s);

    const std::uint32_t first = image.PlacementCursor;
    std::uint64_t remaining = s;
    std::size_t source = 0;
    ctx.diag.Printf("  placing at %x\n", image.PlacementCursor + image.AddressBase);
    CopyPiece(ctx, m, buffer, source, static_cast<std::uint32_t>(piece));
    // The header written last now leads to this piece and is sealed for good; a split
    // module before this one has its data sum put into its checksum here.
    LinkToLastHeader(ctx);
    SealLastHeader(ctx);
    ++layout.SplitPending;
    AddToSplitSum(ctx, buffer, source, piece);
    source += piece;
    remaining -= piece;

    while (remaining != 0) {
        WritePieceHeader(ctx, m, static_cast<std::uint32_t>(piece));
        layout.LastHeader = image.PlacementCursor + module_header::kExtensionSize;
        taken = TakeSplitRoom(ctx, kHeader + kLeastPieceData,
                              static_cast<std::uint32_t>(remaining + kHeader));
        if (taken == 0) NoSpaceLeft(ctx, m);
        piece = taken - kHeader;
        ctx.diag.Printf("          at %x\n", image.PlacementCursor + image.AddressBase);
        CopyPiece(ctx, m, buffer, source, static_cast<std::uint32_t>(piece));
        LinkToLastHeader(ctx);
        AddToSplitSum(ctx, buffer, source, piece);
        source += piece;
        remaining -= piece;
    }

    // The last piece carries the whole module's DataSize and no SplitPiece; its checksum
    // covers its header and the data of every piece (SplitDataSum).
    m.Header.SetDataSizes(s);
    WriteModuleHeader(image.ImageBuffer.data() + image.PlacementCursor, m.Header);
    SealNewHeader(ctx);
    layout.LastHeader = image.PlacementCursor + module_header::kExtensionSize;
    buffer = {};

    image.PlacementCursor = first;
    for (std::uint32_t k = 1; k <= links; ++k) InsertLinkedRom(ctx, index + k);
}

}  // namespace fwforge
