#pragma once
// An image built again by the build pipeline, from the files and the rebuild.scr that
// `extract` recovers from it, with one module's file changed. The build runs on those
// files in memory; its console text is kept from the user.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"
#include "inspect/extract.h"

namespace fwforge::edit {

struct Rebuild {
    std::vector<std::uint8_t> image;
    std::string error;  // the build's own message when it stops
};

// `compress`: the build compresses `file` (the module is stored compressed and the file
// holds its original bytes); otherwise the file is stored as it is.
Rebuild RebuildWithFile(const inspect::ImageModel& model, const inspect::ExtractPlan& plan,
                        const inspect::Module& module, std::span<const std::uint8_t> file,
                        bool compress);

}  // namespace fwforge::edit
