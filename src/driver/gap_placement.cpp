#include "driver/gap_placement.h"

#include "driver/compression_plan.h"
#include "imageinfo/image_info.h"
#include "layout/gap_map.h"
#include "layout/main_header.h"
#include "layout/module_insertion.h"
#include "layout/module_sizing.h"
#include "layout/module_split.h"
#include "layout/placement_passes.h"

namespace fwforge {
namespace {

void PrintMapIfVerbose(BuildContext& ctx, const char* heading) {
    if (!ctx.options.VerboseMode) return;
    ctx.diag.Print(heading);
    PrintGapMap(ctx);
}

void PlaceNonSplittableModules(BuildContext& ctx) {
    ctx.diag.Print("\nPlacing modules that can't be split\n\n");
    for (std::uint32_t pass = 0; pass < ctx.description.ModuleCount; ++pass) {
        const std::uint32_t m = SelectLargestUnplaced(ctx, 1);
        if (m == kNoModule) return;
        if (ReserveWholeRoom(ctx, m) != 0) {
            ReleaseImageBuffers(ctx);
            ctx.diag.Fatal("NON-SPLITTABLE module can not be placed");
        }
        InsertModule(ctx, m);
    }
}

void PlaceWholeModules(BuildContext& ctx) {
    ctx.diag.Print("\nPlacing remaining modules that will fit without splitting\n\n");
    for (std::uint32_t pass = 0; pass < ctx.description.ModuleCount; ++pass) {
        const std::uint32_t m = SelectLargestUnplaced(ctx, 0);
        if (m == kNoModule) return;
        // A module that no gap holds whole is left NoWholeFit for the splitting pass.
        if (ReserveWholeRoom(ctx, m) == 0) InsertModule(ctx, m);
    }
}

void SplitRemainingModules(BuildContext& ctx) {
    ctx.diag.Print("\nSplitting unplaced modules\n\n");
    for (std::uint32_t m = TakeNextUnplaced(ctx); m != kNoModule; m = TakeNextUnplaced(ctx)) {
        SplitModule(ctx, m);
    }
}

}  // namespace

void RunGapPlacement(BuildContext& ctx) {
    BuildDescription& desc = ctx.description;
    ctx.diag.Print("Gathering module size information\n");
    for (std::uint32_t m = 0; m < desc.ModuleCount; ++m) SizeModule(ctx, m);
    AnnouncePlacementCompressions(ctx);

    ctx.diag.Print("Generating gap information\n");
    BuildGapMap(ctx);
    PrintMapIfVerbose(ctx, "\n BIOS gap map before module placement:\n");
    if (FindMainHeaderRoom(ctx) != 0) {
        ReleaseImageBuffers(ctx);
        ctx.diag.Fatal("Main BIOS header can not be placed");
    }
    CreateMainHeader(ctx);

    ctx.diag.Print("\nPlacing modules with specified fixed locations\n\n");
    for (std::uint32_t m = 0; m < desc.ModuleCount; ++m) PlaceFixedModule(ctx, m);
    PlaceNonSplittableModules(ctx);
    PlaceWholeModules(ctx);
    SplitRemainingModules(ctx);

    BuildImageInfoModule(ctx);
    SizeModule(ctx, desc.ModuleCount);
    if (ReserveWholeRoom(ctx, desc.ModuleCount) == 0) {
        InsertModule(ctx, desc.ModuleCount);
    } else {
        SplitModule(ctx, desc.ModuleCount);
    }
    PrintMapIfVerbose(ctx, "\n BIOS gap map after all modules placed:\n");
    FinishMainHeader(ctx, PlacementMode::Gap);
}

}  // namespace fwforge
