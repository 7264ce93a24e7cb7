#pragma once
// `fwforge-inspect replace`: one module of a finished image gets new data, without the
// build script. An image of sequential placement is built again by the pipeline from
// what `extract` recovers, with the one file changed, so everything below the module
// moves as a build would move it; an image of gap placement keeps every other byte
// where it is and takes the new data in place, in the room the module has. Either way
// every checksum that covers the change is sealed again and the result must pass
// `verify` before anyone sees it.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::edit {

struct ReplaceRequest {
    // The module: its number in `list` ("3", "ebb:1"), or "id=XX" (hex), for
    // an add-on ROM "pci=VVVV:DDDD" or "id=20,pci=VVVV:DDDD".
    std::string selector;
    std::string file_name;  // for messages
    std::vector<std::uint8_t> file;
    // The file already holds the module's stored data (a compressed-data header and
    // stream for a compressed module); it is not compressed again.
    bool as_is = false;
    inspect::InspectOptions options;
};

struct ReplaceOutcome {
    std::vector<std::uint8_t> image;  // the new image; empty when refused
    std::string error;                // why it was refused
    std::vector<std::string> report;  // what was done, line by line
    bool Done() const { return error.empty(); }
};

ReplaceOutcome ReplaceModule(std::span<const std::uint8_t> image, const ReplaceRequest& request);

}  // namespace fwforge::edit
