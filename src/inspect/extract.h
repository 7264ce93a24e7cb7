#pragma once
// `extract DIR`: every module's data as a file (decompressed where it is compressed,
// split modules joined), the image information data, the boot block, ROM-hole
// contents, and DIR/rebuild.scr, a build script that gives fwforge what it needs to
// build the image again: byte for byte for an image built in sequential placement.

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "check/verify.h"
#include "image/image_model.h"
#include "script/build_description.h"

namespace fwforge::inspect {

struct ExtractedFile {
    std::string name;  // inside DIR
    std::vector<std::uint8_t> bytes;
};

inline constexpr const char* kRebuildScript = "rebuild.scr";
inline constexpr const char* kRebuiltRom = "rebuilt.rom";  // the ROM file rebuild.scr names

// A module's record in a build description: in the Extended Boot Block's list or in the
// module table; none for the image information module, which the build makes itself.
struct ModuleEntryRef {
    static constexpr std::size_t kNoEntry = ~std::size_t{0};
    bool ebb = false;
    std::size_t index = kNoEntry;
};

// What the image leaves open about one module, which a choice can decide otherwise.
struct OpenChoice {
    enum Kind { Recompress, Splittable };
    std::size_t module;  // index into the model's modules
    Kind kind;
};

// Decisions on open points, per module of the model (-1 or absent: the best guess).
struct ExtractChoices {
    // Given decompressed, for the build to compress again (1), or as stored (0).
    std::vector<std::int8_t> recompress;
    // An uncompressed module placed whole: splittable (1) or not (0).
    std::vector<std::int8_t> splittable;
    // The default for every compressed module that unpacks, in gap placement: given
    // decompressed, so that the build compresses all of them again in the order it
    // did, with the same encoder window from run to run.
    bool recompress_all = false;
    // Stand-ins for cut-off modules (see compress/cut_off_stand_in.h) by module, kept
    // across the plans of one search when given: finding one costs more than a plan.
    std::map<std::size_t, std::optional<std::vector<std::uint8_t>>>* stand_ins = nullptr;
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
    // The build that rebuild.scr describes, with the comments at its top.
    BuildDescription description;
    std::vector<std::string> comments;
    // For each module of the model, its record in the description.
    std::vector<ModuleEntryRef> module_entries;
    // What the image leaves open, for a search of the build that gives it back.
    std::vector<OpenChoice> open_choices;
};

// Everything extract writes, without writing it.
ExtractPlan PlanExtract(std::span<const std::uint8_t> image, const ImageModel& model,
                        const ExtractChoices& choices = {});

// The file name of a module's data ("m03_id12_f3f14.bin"); `suffix` ".bin" or ".lh5".
std::string ModuleFileName(const ImageModel& model, const Module& m, const char* suffix);

}  // namespace fwforge::inspect
