#pragma once
// Any image back to its build: the build description that `extract` recovers, with the
// files it names, built in memory and compared with the image. Where the image leaves a
// choice open (the order of sections, which modules were allowed to split), the
// candidates are built in turn and the first that gives back the image byte for byte is
// kept.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "inspect/extract.h"
#include "image/image_model.h"
#include "script/build_description.h"

namespace fwforge::rebuild {

struct Built {
    std::vector<std::uint8_t> image;  // empty when the build stopped
    std::string error;                // why it stopped, in a few words
};

// Builds `description` in memory from the files of `plan`, plus `extra` files.
Built BuildInMemory(const inspect::ExtractPlan& plan, const BuildDescription& description,
                    const std::vector<inspect::ExtractedFile>& extra = {});

struct Reconstruction {
    inspect::ExtractPlan plan;  // its description and rebuild.scr: the best candidate
    bool exact = false;         // rebuild.scr gives back the image byte for byte
    // When not exact: where the rebuilt image first differs, or why the build stopped.
    std::string difference;
    int candidates_tried = 0;
};

Reconstruction Reconstruct(std::span<const std::uint8_t> image, const inspect::ImageModel& model);

}  // namespace fwforge::rebuild
