#include "layout/module_sizing.h"

#include "format/module_room.h"
#include "layout/module_chain.h"
#include "layout/module_data.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

constexpr std::uint32_t kHeader = module_header::kSize;

// A linked add-on ROM has no data of its own: its header goes next to its parent's, so
// its cost is added to the parent.
void AttachLinkedRom(BuildContext& ctx, ModuleEntry& link) {
    LayoutState& layout = ctx.layout;
    BuildDescription& desc = ctx.description;
    if (layout.LinkParent == kNoIndex) {
        ctx.diag.Fatal(StrFormat("Link has no parent: %s", link.FileName.c_str()));
    }
    ModuleEntry& parent = desc.ModuleTable[layout.LinkParent];
    parent.PlacedSize += kHeader;
    ++parent.LinkedRomCount;
    link.PlacementState = Placed;
    if (parent.RomHoleIndex != kNoIndex && parent.RomHoleIndex < desc.RomHoleTable.size()) {
        // The reservation grows downwards, paragraph-aligned, to take the link's header
        // below the parent's.
        parent.HeaderAddress -= kHeader;
        RomHoleEntry& hole = desc.RomHoleTable[parent.RomHoleIndex];
        const std::uint32_t grow = hole.StartAddress - (parent.HeaderAddress & ~0xFu);
        hole.StartAddress -= grow;
        hole.Size += grow;
    }
    if (ctx.options.VerboseMode) {
        ctx.diag.Printf(
            "  encountered link: parent = %s, # of siblings = %d\n   vendorID = %x, deviceID = "
            "%x\n",
            parent.FileName.c_str(), parent.LinkedRomCount - 1, link.Header.dest_offset,
            link.Header.dest_segment);
        ctx.diag.Printf("    parents total size will be increased by %x\n", kHeader);
    }
}

}  // namespace

void SizeModule(BuildContext& ctx, std::uint32_t index) {
    BuildDescription& desc = ctx.description;
    ModuleEntry& m = desc.ModuleTable[index];
    if (IsLinkedAddonRom(m)) {
        AttachLinkedRom(ctx, m);
        return;
    }
    ctx.layout.LinkParent =
        m.Header.id == kAddonRomModuleId ? static_cast<std::uint8_t>(index) : kNoIndex;

    // Sizes are 32-bit as the firmware format counts them: a MaxModuleSize within a few
    // bytes of 4 GB wraps here, and the module is refused where its data would be copied.
    std::uint32_t s = 0;
    if (IsCompressedByBuild(m.Header.attributes, m.CompressionFlags)) {
        std::uint32_t n = 0;
        std::vector<std::uint8_t> buffer = ReadModuleFile(ctx, m.FileName, n);
        const lzh::CompressResult result = CompressInPlace(ctx, buffer, n);
        // Sizing counts two bytes beyond the compressed total; insertion stores the total
        // alone, so the reserve shows only in PlacedSize (and in the room it reserves).
        s = result.total + module_room::kCompressedReserve;
        // An encoder stopped by its output bound before the end of the input leaves a
        // stream that does not decode to the file; such a module is stored as it is.
        const bool cut_off = result.stopped && result.consumed < n;
        if (cut_off || ((m.CompressionFlags & compression_flag::MinSize) && n <= s)) {
            s = n;
            m.Header.attributes |= module_attr::NotCompressed;
        }
    } else {
        s = MeasureModuleFile(ctx, m.FileName);
    }

    if (m.MaxModuleSize != 0 && m.MaxModuleSize < s) {
        ctx.layout.LastRequest = {RoomRegion::ModuleLimit, index, s, m.MaxModuleSize};
        ctx.diag.Fatal("MaxModuleSize is too small for this module");
    }
    if (m.MaxModuleSize != 0) s = m.MaxModuleSize;
    s = static_cast<std::uint32_t>(module_room::RoundUp4(s));
    // Wraps in 32 bits like the sizes above.
    s += module_room::AlignmentReserve(m.Alignment, desc.RomHoleCount != 0);
    m.PlacedSize = s + kHeader;

    if (m.RomHoleIndex != kNoIndex && m.RomHoleIndex < desc.RomHoleTable.size()) {
        // From the paragraph below the header to the paragraph boundary at or above the
        // end of the data.
        RomHoleEntry& hole = desc.RomHoleTable[m.RomHoleIndex];
        hole.Size = (m.StartAddress - hole.StartAddress + s + 15) & ~15u;
    }
    if (ctx.options.VerboseMode) {
        ctx.diag.Printf(" %s (module id %x) size will be %x\n", m.FileName.c_str(),
                        m.Header.id, m.PlacedSize);
    }
}

}  // namespace fwforge
