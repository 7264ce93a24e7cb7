#pragma once
// fwforge-inspect COMMAND IMAGE [options]: list, verify, extract, map and diff a ROM
// image, each ending with an ExitStatus (image/outcome.h): Ok when the command found
// everything in order, Problems when the image has problems (or differs, for diff),
// Unusable for an image that cannot be read at all (for verify: a file that cannot be
// read), CannotUnpack from verify and extract for an image that is intact as built but
// holds compressed modules that cannot be unpacked.

#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"
#include "image/outcome.h"

namespace fwforge::inspect {

// One command as the command line gives it.
struct Command {
    std::string command;  // list, verify, extract, map or diff
    std::string image;
    std::string argument;  // DIR of extract, IMAGE2 of diff
    std::string html;      // map: the HTML file to write; empty for the text map
    bool json = false;     // list and verify
    InspectOptions options;
};

// list, verify, map and diff; extract is rebuild::RunExtract.
ExitStatus RunCommand(const Command& command, std::ostream& out);

// The image file read whole.
Result<std::vector<std::uint8_t>> LoadImage(const std::string& name);

// Writes `bytes` as the file `name`, whole or not at all.
Result<bool> WriteFile(const std::string& name, std::span<const std::uint8_t> bytes);

// Prints the failure's message and gives its exit status.
ExitStatus Fail(const Failure& failure, std::ostream& out);

}  // namespace fwforge::inspect
