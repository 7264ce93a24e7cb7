#include "bootblock/nvram_area.h"

#include <algorithm>

#include "platform/text_format.h"

namespace fwforge {

void InitNvramArea(BuildContext& ctx) {
    const BiosSettings& bios = ctx.description.Bios;
    const std::uint32_t size = bios.NvramSize;
    if (size == 0) return;
    ctx.diag.Print("Initializing NVRAM space below boot block...\n");
    if (size % 16 != 0) ctx.diag.Fatal("NVRAM size must be a multiple of 16");
    const std::uint64_t top_regions = std::uint64_t(size) + bios.BootBlockSize + bios.MaxEbbSize;
    if (bios.BiosSize <= top_regions) {
        ctx.diag.Fatal("Sum of Nvram and Boot Block must be smaller than total BIOS size");
    }
    // The cursor normally stands at BiosSize - BootBlockSize - MaxEbbSize here, which
    // the check above covers; this guards a cursor that the earlier phases left elsewhere.
    const std::uint32_t cursor = ctx.image.PlacementCursor;
    if (cursor > ctx.image.ImageBuffer.size() || cursor < size) {
        ctx.diag.Fatal(
            StrFormat("NVRAM area does not fit in the ROM image: nvramsize 0x%08X is larger than "
                      "the 0x%08X bytes left below the boot block and the Extended Boot Block",
                      size, cursor));
    }
    ctx.image.PlacementCursor = cursor - size;
    std::fill_n(ctx.image.ImageBuffer.begin() + ctx.image.PlacementCursor, size,
                std::uint8_t(0xFF));
}

}  // namespace fwforge
