#pragma once
// The layout engine's state for one build: where the main BIOS header is, the end of the
// module chain, the parent of the next linked add-on ROM and the insertion counter.
// Gap placement and non-critical blocks add their own fields here.

#include <chrono>
#include <cstdint>
#include <vector>

namespace fwforge {

// Which of the two ways of laying out the main BIOS a step works in. Gap placement is
// chosen as soon as the build script reserves any range (RomHoleCount != 0).
enum class PlacementMode : std::uint8_t { Sequential, Gap };

// One free range of the image in gap placement, as image offsets.
struct GapEntry {
    std::uint32_t End = 0;    // one past the last free byte
    std::uint32_t Start = 0;  // first free byte
    std::uint32_t Size = 0;   // End - Start; 0 once used up
};

// The free ranges between the reserved ranges. GapCount is fixed when the map is built;
// used-up gaps stay in the table with Size 0.
struct GapMap {
    std::vector<GapEntry> GapTable;
    std::uint32_t GapCount = 0;
    // Indices into GapTable by ascending Size, lower index first among equals.
    std::vector<std::uint8_t> GapSizeOrder;
};

// Where the layout engine asked for room last: in a region, or within the module's own
// maxmodulesize (of a ModuleTable module, or of an Extended Boot Block module).
enum class RoomRegion : std::uint8_t { None, Main, Ebb, Block, ModuleLimit, EbbModuleLimit };

// The room the layout engine asked for last: for which module, in which region, how many
// bytes the module takes and how many the region had for it. The engine only writes it;
// it is kept so that a build that stops for want of room can be told by how much.
struct RoomRequest {
    RoomRegion region = RoomRegion::None;
    std::uint32_t module = 0;   // ModuleTable index; EbbModuleList index in the EBB
    std::uint64_t needed = 0;   // bytes the module takes, its header included
    std::uint64_t offered = 0;  // bytes free for it: below the cursor, in the EBB or block
};

struct LayoutState {
    // Image offset of the main BIOS header's signature; valid once it has been created.
    std::uint32_t MainHeader = 0;
    // Base header (header + 8) of the header written last, or MainHeader while no module
    // has been inserted. The next header is linked from here.
    std::uint32_t LastHeader = 0;
    // Module index to which the next linked add-on ROM is attached; 0xFF for none.
    std::uint8_t LinkParent = 0xFF;
    // Handed out as InsertionIndex; 8 bits wide and never reset, as the image
    // information module stores it in one byte.
    std::uint8_t InsertionCounter = 0;
    // A split module whose data sum still has to go into the next seal (set by splitting).
    std::uint32_t SplitPending = 0;
    std::uint32_t SplitDataSum = 0;
    // Set while a non-critical block starts a chain of its own: its first module is not
    // linked from, and does not reseal, the header written before it.
    bool SkipNextLink = false;
    // Image offset that 32-bit module links are counted from (a block's start, else 0).
    std::uint32_t NcbBase = 0;
    // Gap placement only.
    GapMap gaps;
    // The gaps as the map was first laid out, before anything took room from them; for
    // reports only.
    std::vector<GapEntry> GapsAsBuilt;
    RoomRequest LastRequest;
    // One past the last byte of the room that gap placement handed to the module being
    // inserted (a reserved gap, a start address reservation, the rest of a non-critical
    // block). Insertion refuses to write past it.
    std::uint64_t RoomEnd = 0;
    // Time spent in the encoder on behalf of the layout engine, for the benchmark's
    // split of build time into compression and everything else.
    std::chrono::steady_clock::duration CompressionTime{};
};

}  // namespace fwforge
