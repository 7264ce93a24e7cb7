#pragma once
// New stored data for one module of an image built by gap placement, written where the
// module stands: nothing else moves, so the module must hold its new data in the room it
// has, its own stored bytes and the free bytes directly after them.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::edit {

// Writes `data` as the stored data of `module` (not split, not a linked header) into
// `image`, which `model` describes, and seals again what covers it: the module header,
// the headers of its linked add-on ROMs, the main BIOS header's region, or the header
// of the Extended Boot Block or non-critical block that holds it. A `stamp` goes into the
// main BIOS header as its boot block stamp. Returns why, and leaves `image` as it was,
// when the data does not fit the module's room.
std::string ReplaceInPlace(std::vector<std::uint8_t>& image, const inspect::ImageModel& model,
                           const inspect::Module& module, std::vector<std::uint8_t> data,
                           std::optional<std::uint32_t> stamp);

}  // namespace fwforge::edit
