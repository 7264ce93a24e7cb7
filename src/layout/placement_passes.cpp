#include "layout/placement_passes.h"

#include <algorithm>

#include "format/module_header.h"
#include "layout/gap_map.h"

namespace fwforge {

std::uint32_t SelectLargestUnplaced(const BuildContext& ctx, std::uint8_t contiguous) {
    const BuildDescription& desc = ctx.description;
    std::uint32_t best = kNoModule;
    for (std::uint32_t m = 0; m < desc.ModuleCount; ++m) {
        const ModuleEntry& e = desc.ModuleTable[m];
        if (e.PlacementState != Unplaced || e.Contiguous != contiguous || !e.RomRegion.empty()) {
            continue;
        }
        if (best == kNoModule || e.PlacedSize > desc.ModuleTable[best].PlacedSize) best = m;
    }
    return best;
}

std::uint8_t ReserveWholeRoom(BuildContext& ctx, std::uint32_t index) {
    ModuleEntry& m = ctx.description.ModuleTable[index];
    GapMap& map = ctx.layout.gaps;
    m.PlacementState = NoWholeFit;
    std::uint32_t largest = 0;
    for (const GapEntry& gap : map.GapTable) largest = std::max(largest, gap.Size);
    ctx.layout.LastRequest = {RoomRegion::Main, index, m.PlacedSize, largest};
    for (const std::uint8_t g : map.GapSizeOrder) {
        GapEntry& gap = map.GapTable[g];
        if (m.PlacedSize > gap.Size) continue;
        m.PlacementState = Placed;
        std::uint32_t cursor = gap.Start;
        const std::uint32_t data = cursor + module_header::kSize;
        if (m.Alignment != 0 && data % m.Alignment != 0) {
            cursor += m.Alignment - data % m.Alignment;
        }
        ctx.image.PlacementCursor = cursor;
        // The room is counted from the gap's old start whatever the alignment moved:
        // PlacedSize carries the alignment reserve.
        ctx.layout.RoomEnd = std::uint64_t{gap.Start} + m.PlacedSize;
        gap.Start += m.PlacedSize;
        gap.Size -= m.PlacedSize;
        OrderGapsBySize(map);
        return 0;
    }
    return 1;
}

std::uint32_t TakeNextUnplaced(BuildContext& ctx) {
    BuildDescription& desc = ctx.description;
    for (std::uint32_t m = 0; m < desc.ModuleCount; ++m) {
        ModuleEntry& e = desc.ModuleTable[m];
        if (e.PlacementState != Placed && e.RomRegion.empty()) {
            e.PlacementState = Placed;
            return m;
        }
    }
    return kNoModule;
}

}  // namespace fwforge
