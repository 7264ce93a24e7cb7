#pragma once
// `extract DIR`: every module's data as a file (decompressed where it is compressed,
// split modules joined), the image information data, the boot block, ROM-hole
// contents, and DIR/rebuild.scr, a build script that gives fwforge what it needs to
// build the image again: byte for byte for an image built in sequential placement.

#include <span>
#include <string>
#include <vector>

#include "check/verify.h"
#include "image/image_model.h"

namespace fwforge::inspect {

struct ExtractedFile {
    std::string name;  // inside DIR
    std::vector<std::uint8_t> bytes;
};

struct ExtractPlan {
    std::vector<ExtractedFile> files;  // rebuild.scr last
    std::vector<std::string> lost;     // what the image does not tell, for the report
    std::vector<Finding> problems;     // what keeps modules from being extracted
    // Compressed modules written as stored only (rebuild.scr takes them as they are).
    std::vector<CannotUnpack> cannot_unpack;
    // For each module of the model, the file that rebuild.scr names for it (empty for
    // linked add-on ROMs and the image information module, which the build writes).
    std::vector<std::string> module_files;
    // The main BIOS header is in the compatibility form: fwforge needs -c to rebuild it.
    bool compatibility_form = false;
};

// Everything extract writes, without writing it.
ExtractPlan PlanExtract(std::span<const std::uint8_t> image, const ImageModel& model);

// The file name of a module's data ("m03_id12_f3f14.bin"); `suffix` ".bin" or ".lh5".
std::string ModuleFileName(const ImageModel& model, const Module& m, const char* suffix);

}  // namespace fwforge::inspect
