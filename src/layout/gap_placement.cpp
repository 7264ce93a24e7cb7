#include "layout/gap_placement.h"

#include "platform/text_format.h"

namespace fwforge {

// Reserved ranges are not laid out by this build of the tool yet; a script that asks
// for them is refused before anything is placed, rather than built wrongly.
void RunGapPlacement(BuildContext& ctx) {
    ctx.diag.Fatal(StrFormat(
        "This build cannot place modules around reserved ranges yet (%u ROMHOLE, "
        "NONCRITICALROM or module startaddress records)",
        ctx.description.RomHoleCount));
}

void LoadRomHoles(BuildContext& ctx) {
    ctx.diag.Fatal("This build cannot load ROMHOLEs or build non-critical blocks yet");
}

}  // namespace fwforge
