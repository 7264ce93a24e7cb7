#pragma once
// Gap maps set up directly, for tests of the placement steps that take room from them.

#include <vector>

#include "layout/gap_map.h"
#include "layout/layout_fixture.h"
#include "layout/main_header.h"

namespace fwforge::testing {

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

inline std::vector<GapSpan> GapSpans(const LayoutFixture& f) {
    std::vector<GapSpan> spans;
    for (const GapEntry& g : f.ctx.layout.gaps.GapTable) spans.push_back({g.Start, g.End});
    return spans;
}

}  // namespace fwforge::testing
