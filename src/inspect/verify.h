#pragma once
// Every check that an image built by fwforge must pass: checksums of module headers
// (split modules with the data of all their pieces), of the main BIOS header's region,
// of the EBB and non-critical block headers and of the boot block; links in range;
// no overlapping items; every compressed module decoding completely.

#include <span>
#include <string>
#include <vector>

#include "inspect/image_model.h"

namespace fwforge::inspect {

struct VerifyReport {
    std::vector<Finding> problems;   // the reader's problems first
    std::vector<std::string> notes;  // checks that could not be made, and why
    int checks = 0;                  // checks made
    bool Clean() const { return problems.empty(); }
};

VerifyReport Verify(std::span<const std::uint8_t> image, const ImageModel& model);

// An item that takes room in the image, for overlap checks, maps and free space.
struct Extent {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
    std::string name;
};

// The top-level items of the image (modules of the EBB and of non-critical blocks lie
// inside their blocks and are not listed), ordered by address; without the modules of
// the main chain when `with_modules` is false.
std::vector<Extent> TopLevelExtents(const ImageModel& model, bool with_modules = true);

// The ranges that `extents` cover, merged, in address order.
std::vector<Extent> MergedCover(std::vector<Extent> extents);

}  // namespace fwforge::inspect
