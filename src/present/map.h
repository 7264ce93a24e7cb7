#pragma once
// `map`: the image by address, as text, or as a self-contained HTML page with a scaled
// picture of the image (regions and modules as boxes, free space visible, details on
// hover) and the module table.

#include <span>
#include <string>
#include <vector>

#include "image/extents.h"
#include "image/image_model.h"

namespace fwforge::inspect {

enum class MapKind { Region, Block, Module, Free, Other };

// One line of the map; modules inside the EBB and non-critical blocks are nested
// (depth 1) below their block.
struct MapEntry {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
    MapKind kind = MapKind::Other;
    int depth = 0;
    std::string name;
    std::string details;
    int module = -1;                        // index into ImageModel::modules
    ExtentKind extent = ExtentKind::Other;  // what a region or block is
};

// The map in ascending address order.
std::vector<MapEntry> BuildMap(std::span<const std::uint8_t> image, const ImageModel& model);

std::string MapText(std::span<const std::uint8_t> image, const ImageModel& model);
std::string MapHtml(std::span<const std::uint8_t> image, const ImageModel& model,
                    const std::string& title);

}  // namespace fwforge::inspect
