#pragma once
// `diff IMAGE2`: module-by-module differences between two images. Modules are paired
// by area, module id and destination (or PCI ids), in chain order; each pair is
// compared by content, header fields and position.

#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::inspect {

struct Difference {
    std::string kind;  // "added", "removed", "changed", "moved", "image"
    std::string what;
};

std::vector<Difference> DiffImages(std::span<const std::uint8_t> image_a, const ImageModel& a,
                                   std::span<const std::uint8_t> image_b, const ImageModel& b);

std::string DiffText(const std::vector<Difference>& differences);

}  // namespace fwforge::inspect
