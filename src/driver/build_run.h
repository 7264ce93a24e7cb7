#pragma once
// One whole build as a value: the build script and every file it names are read from a
// FileSystem, the outputs are written to it, and the console text, the exit status and
// the fatal message come back. fwforge runs it on the disk; replace and the tests run it
// on files in memory, without a working folder or a console.

#include <functional>
#include <ostream>
#include <string>

#include "compress/module_compressor.h"
#include "platform/file_system.h"

namespace fwforge {

class BuildContext;

struct BuildRequest {
    std::string script;          // the build script's name in the file system
    std::string output_path;     // where the .int and .inf files go (OutputPath)
    bool verbose = false;        // -v
    bool compatibility = false;  // -c
    // Threads that compress modules ahead of the layout, and whether a module's second
    // compression reuses its first; the output is the same bytes either way.
    unsigned compression_threads = 1;
    bool reuse_compression = true;
    // What the encoder may allocate; tests make its allocations fail with it.
    lzh::EncoderLimits encoder_limits;
    // Called once when the build ends, completed or stopped by a fatal report, with its
    // state as the build left it (the image buffer released): a plan reads the layout
    // from it. It must not change the build's state.
    std::function<void(const BuildContext&)> observe;
};

struct BuildResult {
    int exit_status = 1;
    std::string console;  // standard output, the banner included
    std::string fatal;    // the fatal report's message; empty when the build completed
    // The encoder's out-of-memory stop, which fwforge writes to standard error alone.
    std::string error_output;
    std::string rom_file;  // the ROM image's name, as the build script gives it
    bool Completed() const { return exit_status == 0; }
};

// The banner every run of fwforge prints first.
void PrintBanner(std::ostream& out);

// Runs the build that `request` describes on `files`, from the banner to the run summary,
// printing to `console` as it goes. Returns the exit status and the fatal message; the
// encoder's out-of-memory stop (lzh::OutOfMemory) is left to the caller, for it bypasses
// the console.
BuildResult RunBuild(platform::FileSystem& files, const BuildRequest& request,
                     std::ostream& console);

// The same, with the console text and the encoder's out-of-memory stop in the result.
BuildResult RunBuild(platform::FileSystem& files, const BuildRequest& request);

}  // namespace fwforge
