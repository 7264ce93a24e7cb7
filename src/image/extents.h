#pragma once
// Where the items of an image lie: the regions, the blocks, the modules of the main
// chain and the ROM holes as ranges of image offsets, and the free space between them.
// The checks look for overlaps in them, the presentations draw and list them, and
// replace finds a module's room in them.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::inspect {

// What an extent is.
enum class ExtentKind {
    BootBlock,
    Ebb,
    Nvram,
    MainHeader,
    Module,  // a module of the main chain, or a piece of a split one
    Ncb,
    RomHole,      // filled with its filler
    RomHoleFile,  // loaded from a file
    Other,        // a merged cover
};

// An item that takes room in the image, for overlap checks, maps and free space.
struct Extent {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
    std::string name;
    ExtentKind kind = ExtentKind::Other;
};

// The top-level items of the image (modules of the EBB and of non-critical blocks lie
// inside their blocks and are not listed), ordered by address; without the modules of
// the main chain when `with_modules` is false.
std::vector<Extent> TopLevelExtents(const ImageModel& model, bool with_modules = true);

// The ranges that `extents` cover, merged, in address order.
std::vector<Extent> MergedCover(std::vector<Extent> extents);

// A run of 0xFF bytes outside every item of the image.
struct FreeRun {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

// Runs shorter than this are padding between items, not free space.
inline constexpr std::uint32_t kMinFreeRun = 16;

// Free runs in address order.
std::vector<FreeRun> FreeSpace(std::span<const std::uint8_t> image, const ImageModel& model);

}  // namespace fwforge::inspect
