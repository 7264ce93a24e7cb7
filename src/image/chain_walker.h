#pragma once
// Walking the module chains of an image: the main BIOS chain from the main BIOS
// header (16-bit segment:offset or 32-bit links, split pieces gathered into their
// module) and the chains of the Extended Boot Block and non-critical blocks (32-bit
// offsets from the block's start). One walk reads them all, each chain with its own
// rules for links and bounds: every offset is checked before it is read, every walk
// remembers where it has been, and a problem ends only the walk it was found in.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "image/image_model.h"

namespace fwforge::inspect {

// Whether `length` bytes from `offset` lie below `limit`, without overflow.
inline bool Fits(std::uint64_t offset, std::uint64_t length, std::uint64_t limit) {
    return offset <= limit && length <= limit - offset;
}

// Where a main-chain link leads: the image offset of the module header's first byte,
// or nothing when it leads outside the image or ends the chain.
std::optional<std::uint32_t> DecodeMainLink(std::uint32_t value, bool links32, std::uint32_t size);

// Whether the header at `at` (known to fit the image) looks like a module header.
bool PlausibleHeader(std::span<const std::uint8_t> image, std::uint32_t at);

// Adds the modules of the main chain to the model; model.main and model.links32 are set.
void WalkMainChain(std::span<const std::uint8_t> image, ImageModel& model);

// Adds the modules of a block's chain, numbered on from `index`.
void WalkBlockChain(std::span<const std::uint8_t> image, ImageModel& model, const Block& block,
                    ModuleArea area, int block_index, const std::string& name, int& index);

}  // namespace fwforge::inspect
