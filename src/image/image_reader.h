#pragma once
// Reading a ROM image into the model: its regions found by their signatures, the link
// form chosen, the chains walked (chain_walker.h), the image information records read
// and the boot block and NVRAM area told.

#include <cstdint>
#include <span>

#include "image/image_model.h"

namespace fwforge::inspect {

// Reads the image. Never fails: what cannot be read is a problem in the model.
ImageModel ReadImage(std::span<const std::uint8_t> image, const InspectOptions& options);

}  // namespace fwforge::inspect
