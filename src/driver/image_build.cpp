#include "driver/image_build.h"

#include <new>

#include "bootblock/boot_block.h"
#include "bootblock/extended_boot_block.h"
#include "bootblock/nvram_area.h"
#include "driver/compression_plan.h"
#include "driver/gap_placement.h"
#include "imageinfo/image_info.h"
#include "layout/main_header.h"
#include "layout/module_insertion.h"
#include "layout/module_sizing.h"
#include "layout/rom_holes.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

void AllocateImage(BuildContext& ctx) {
    const BuildDescription& desc = ctx.description;
    ImageState& image = ctx.image;
    try {
        image.ImageBuffer.assign(desc.Bios.BiosSize, 0xFF);
    } catch (const std::bad_alloc&) {
        ctx.diag.Fatal("Out of memory");
    }
    image.PlacementCursor = desc.Bios.BiosSize;
    image.AddressBase = desc.RomImage.Use32BitMode ? 0 : 0x100000u - desc.Bios.BiosSize;
}

void RunSequentialPlacement(BuildContext& ctx) {
    BuildDescription& desc = ctx.description;
    ctx.diag.Printf("Generating final ROM image %s...\n", desc.Bios.RomFile.c_str());
    CreateMainHeader(ctx);
    // Each module is compressed to size it and at once again to insert it. The second
    // run never computes anything: it reads the same input, and the window bytes it can
    // read without writing them first lie at 8192 + n and above for an input of n < 8448
    // bytes (none for longer ones), where the first run wrote nothing (its first fill
    // ends below, its slides and refills write below 8448), so the compression keeps the
    // first result for it.
    for (std::uint32_t m = 0; m < desc.ModuleCount; ++m) {
        SizeModule(ctx, m);
        InsertModule(ctx, m);
    }
    BuildImageInfoModule(ctx);
    SizeModule(ctx, desc.ModuleCount);
    InsertModule(ctx, desc.ModuleCount);
    FinishMainHeader(ctx, PlacementMode::Sequential);
}

void WriteRomFile(BuildContext& ctx) {
    const std::string& name = ctx.description.Bios.RomFile;
    auto file = ctx.files.Create(name);
    if (!file) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal(StrFormat("Cannot create file: %s", name.c_str()));
    }
    // The ROM file appears whole when the write and its commit succeed; otherwise any
    // file of that name stays as it was.
    if (!file->Write(ctx.image.ImageBuffer) || !file->Commit()) {
        file.reset();
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Cannot write to ROM file");
    }
}

}  // namespace

void BuildRomImage(BuildContext& ctx) {
    const BuildDescription& desc = ctx.description;
    // Announced first, so that the workers start while the image is filled.
    AnnounceModuleCompressions(ctx);
    AllocateImage(ctx);

    // Each fixed phase checks that its region fits below the cursor, after its progress
    // line and its own limits: the end-of-script check compares the regions with BiosSize
    // in wrapping 32-bit arithmetic, so tiny or huge values can reach the build.
    BuildBootBlock(ctx);
    BuildExtendedBootBlock(ctx);
    InitNvramArea(ctx);

    if (desc.RomHoleCount != 0) {
        RunGapPlacement(ctx);
    } else {
        RunSequentialPlacement(ctx);
    }
    // ROM holes are loaded after the main BIOS header's checksum is set, so nothing
    // they hold is covered by it.
    if (desc.RomHoleCount != desc.FixedModuleCount) {
        ctx.diag.Print("Loading ROMHOLEs with filler data and files ...\n\n");
        LoadRomHoles(ctx);
    }
    WriteRomFile(ctx);
    ReleaseImageBuffers(ctx);
}

}  // namespace fwforge
