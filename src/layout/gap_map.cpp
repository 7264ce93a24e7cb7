#include "layout/gap_map.h"

#include <algorithm>
#include <numeric>

#include "layout/main_header.h"

namespace fwforge {
namespace {

// Image offsets below this never belong to a gap: the first 8 bytes of the image are
// left to a range that starts at 0, or to no one.
constexpr std::uint32_t kLowestGapStart = 8;

// In 32 bits, as the firmware format counts: a range that wraps past 4 GB ends low and
// passes the test against the top; filling it is stopped where the ROM holes are loaded.
std::uint32_t EndOf(const RomHoleEntry& range) {
    return range.StartAddress + range.Size;
}

[[noreturn]] void FailMap(BuildContext& ctx, const char* message) {
    ReleaseImageBuffers(ctx);
    ctx.diag.Fatal(message);
}

// The reserved ranges in address order. Ties are refused, so the order is strict; among
// several candidates the first in table order is taken, as the search walks the table.
std::vector<std::uint32_t> OrderRanges(BuildContext& ctx, std::uint32_t n, std::uint32_t lowest) {
    const std::vector<RomHoleEntry>& holes = ctx.description.RomHoleTable;
    std::vector<std::uint32_t> order{lowest};
    for (std::uint32_t k = 1; k < n; ++k) {
        const std::uint32_t prev = order.back();
        const std::uint32_t after = holes[prev].StartAddress;
        std::uint32_t next = n;
        for (std::uint32_t r = 0; r < n; ++r) {
            if (r != prev && holes[r].StartAddress == after) {
                FailMap(ctx, "Two ROMHOLEs, NONCRITICALROMs or Modules have same StartAddress!");
            }
            if (holes[r].StartAddress > after &&
                (next == n || holes[r].StartAddress < holes[next].StartAddress)) {
                next = r;
            }
        }
        order.push_back(next);
    }
    return order;
}

}  // namespace

void BuildGapMap(BuildContext& ctx) {
    BuildDescription& desc = ctx.description;
    const ImageState& image = ctx.image;
    GapMap& map = ctx.layout.gaps;
    const std::uint32_t n = std::min<std::uint32_t>(
        desc.RomHoleCount, static_cast<std::uint32_t>(desc.RomHoleTable.size()));
    const std::uint32_t top = image.PlacementCursor;
    std::vector<RomHoleEntry>& holes = desc.RomHoleTable;

    std::uint32_t count = n + 1;
    const std::uint32_t limit = desc.RomImage.Use32BitMode ? desc.Bios.BiosSize : 0x100000u;
    std::uint32_t highest = 0;
    for (std::uint32_t r = 0; r < n; ++r) {
        if (holes[r].StartAddress >= limit) {
            FailMap(ctx, "ROMHOLE, NONCRITICALROM or Module StartAddress out of Range");
        }
        if (holes[r].StartAddress > holes[highest].StartAddress) highest = r;
    }
    std::uint32_t lowest = 0;
    for (std::uint32_t r = 0; r < n; ++r) {
        if (holes[r].StartAddress < image.AddressBase) {
            FailMap(ctx, "ROMHOLE, NONCRITICALROM or Module StartAddress out of Range");
        }
        holes[r].StartAddress -= image.AddressBase;
        if (holes[r].StartAddress < holes[lowest].StartAddress) lowest = r;
    }
    if (EndOf(holes[highest]) > top) {
        FailMap(ctx,
                "ROMHOLE, NONCRITICALROM or Fixed Location Module conflicts with bootblock or "
                "NVRAM");
    }
    if (EndOf(holes[highest]) == top) --count;
    if (holes[lowest].StartAddress == 0) --count;
    if (count == 0) FailMap(ctx, "ROMHOLE or NONCRITICALROM consumes entire free space");

    const std::vector<std::uint32_t> order = OrderRanges(ctx, n, lowest);

    // One gap more than there are ranges at most, and one spare entry for the start of
    // the gap after the last one laid out.
    map.GapTable.assign(n + 2, GapEntry{});
    std::vector<GapEntry>& gaps = map.GapTable;
    std::uint32_t next = 0;  // position in `order` of the current range q
    if (holes[order[0]].StartAddress == 0) {
        gaps[0].Start = EndOf(holes[order[0]]);
        next = 1;
    } else {
        gaps[0].Start = kLowestGapStart;
    }
    std::uint32_t i = 0;
    while (i < count) {
        const bool has_range = next < n;
        GapEntry& gap = gaps[i];
        gap.End = has_range ? holes[order[next]].StartAddress : top;
        if (gap.Start > gap.End) FailMap(ctx, "ROMHOLEs, NONCRITICALROMs or Modules overlap");
        gap.Size = gap.End - gap.Start;
        if (!has_range) break;
        // Every gap lies inside the image: its end is a range's start (below BiosSize)
        // or the top, and a start above its end is refused above.
        const std::uint32_t range_end = EndOf(holes[order[next]]);
        if (gap.Start == gap.End) {
            gap.Start = range_end;
            --count;
        } else {
            gaps[i + 1].Start = range_end;
            ++i;
        }
        ++next;
    }
    map.GapCount = count;
    map.GapTable.resize(count);
    OrderGapsBySize(map);
    ctx.layout.GapsAsBuilt = map.GapTable;
}

void OrderGapsBySize(GapMap& map) {
    map.GapSizeOrder.resize(map.GapCount);
    std::iota(map.GapSizeOrder.begin(), map.GapSizeOrder.end(), std::uint8_t{0});
    std::stable_sort(map.GapSizeOrder.begin(), map.GapSizeOrder.end(),
                     [&](std::uint8_t a, std::uint8_t b) {
                         return map.GapTable[a].Size < map.GapTable[b].Size;
                     });
}

void PrintGapMap(BuildContext& ctx) {
    const GapMap& map = ctx.layout.gaps;
    const std::uint32_t base = ctx.image.AddressBase;
    std::uint32_t total = 0;
    for (std::uint32_t i = 0; i < map.GapCount; ++i) {
        const GapEntry& gap = map.GapTable[i];
        ctx.diag.Printf("  Gap[%d]: start=%x,  end=%x,  size=%x\n", static_cast<int>(i),
                        gap.Start + base, gap.End + base, gap.Size);
        total += gap.Size;
    }
    ctx.diag.Printf(" Total space (remaining): %x\n\n", total);
}

std::uint8_t FindMainHeaderRoom(BuildContext& ctx) {
    GapMap& map = ctx.layout.gaps;
    const std::uint32_t block = MainHeaderBlockSize(ctx.description);
    for (std::uint32_t i = map.GapCount; i-- > 0;) {
        GapEntry& gap = map.GapTable[i];
        if (gap.Size < block) continue;
        ctx.image.PlacementCursor = gap.End;
        gap.End -= block;
        gap.Size -= block;
        OrderGapsBySize(map);
        return 0;
    }
    return kNoGap;
}

}  // namespace fwforge
