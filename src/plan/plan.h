#pragma once
// A build seen before it runs: the real build of a script, run in memory on the files it
// names, and what it made of them. For a build that completes: its regions with the room
// used and left, the gap map of gap placement with what took each gap, every module in
// build order with where it lands and how it was placed, and the headroom of each region,
// all read from the image the build made and the builder's own layout state. For a build
// that stops for want of room: its message, the module and the figures behind it, and
// changes of the script that each were built and make the build complete.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "driver/build_run.h"
#include "image/image_model.h"
#include "plan/script_edit.h"
#include "platform/file_system.h"

namespace fwforge::plan {

struct PlanRequest {
    std::string script;              // the build script's name in the file system
    std::string output_path = ".";   // OutputPath of fwforge: where the .int and .inf go
    bool compatibility = false;      // -c
    unsigned compression_threads = 1;
    bool suggest = true;             // search for changes when the build stops for room
    // Builds tried for suggestions at most (the next size up always among them).
    int most_trials = 4;
    // The files are the disk's: outputs are created only in folders that exist there.
    bool on_disk = false;
};

// An area of the image. Regions that take modules (the main BIOS, the Extended Boot
// Block, each non-critical block) have used and free bytes; the boot block and the
// NVRAM area are fixed.
struct Region {
    std::string name;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    bool takes_modules = false;
    std::uint32_t used = 0;
    std::uint32_t free = 0;
    // The largest module that still fits whole: data bytes beside its 20-byte header in
    // the largest free range.
    std::uint32_t headroom = 0;
    double Fill() const { return length ? 100.0 * used / length : 0.0; }
};

// One gap of gap placement as the map was laid out, and what took room in it.
struct GapUse {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::uint32_t left = 0;
    std::vector<std::string> taken_by;
};

struct PlannedModule {
    inspect::Module module;  // as the image holds it: what `list` reads
    std::string file;        // "" when the build description has no file (a linked add-on ROM)
    int section = -1;        // its [module] section among the script's, from 0; -1 for none
    std::uint32_t room = 0;  // bytes it takes: header, data, alignment and reserves
    std::string placement;   // "fixed address", "must not be split", "whole", "split", ...
};

// The figures behind a fatal message for want of room.
struct Shortfall {
    std::string module;  // the module's file; "" for the main BIOS header
    int section = -1;
    std::string region;  // "main BIOS", "Extended Boot Block", or the block's name
    std::uint64_t needed = 0;
    std::uint64_t largest_free = 0;
    std::uint64_t total_free = 0;
    std::uint64_t bytes = 0;  // how far over: needed less the largest room it could take
};

struct Suggestion {
    std::string change;  // what to change, in words
    std::string cost;    // what it costs
    ScriptEdit edit;
    int rank = 0;        // smallest change first
    std::uint64_t amount = 0;
};

struct Plan {
    std::string script;
    BuildResult build;
    std::string rom_file;
    std::vector<std::uint8_t> image;  // the ROM image the build made; empty when it stopped
    inspect::ImageModel model;
    bool gap_placement = false;
    std::vector<Region> regions;
    std::vector<GapUse> gaps;
    std::vector<PlannedModule> modules;  // in build order
    std::optional<Shortfall> shortfall;
    std::vector<Suggestion> suggestions;
    int trials = 0;  // builds tried for suggestions

    bool Completed() const { return build.Completed(); }
};

// Runs the build of `request.script` on `files`, writing nothing to them.
Plan MakePlan(platform::FileSystem& files, const PlanRequest& request);

}  // namespace fwforge::plan
