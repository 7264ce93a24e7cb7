#include "driver/build_run.h"

#include <new>
#include <sstream>

#include "compress/module_compressor.h"
#include "context/build_context.h"
#include "driver/image_build.h"

namespace fwforge {

void PrintBanner(std::ostream& out) {
    out << "ZELBIOS FWFORGE Version " << kToolVersion << " (STRATA 2)\n"
        << "Copyright (C) The FWFORGE Project. All rights reserved.\n\n";
}

BuildResult RunBuild(platform::FileSystem& files, const BuildRequest& request,
                     std::ostream& console) {
    BuildResult result;
    PrintBanner(console);
    BuildContext ctx(console, files);
    ctx.options.OutputPath = request.output_path;
    ctx.options.VerboseMode = request.verbose;
    ctx.options.CompatibilityMode = request.compatibility;
    ctx.options.CompressionThreads = request.compression_threads;
    ctx.options.ReuseCompression = request.reuse_compression;
    ctx.options.EncoderLimits = request.encoder_limits;
    if (ctx.options.VerboseMode) console << "VERBOSE MODE: \n\n";
    if (ctx.options.CompatibilityMode) {
        console << "COMPATABILITY MODE: Main BIOS header will be pre-version 1.00 style \n\n";
    }
    try {
        try {
            ParseBuildScript(ctx, request.script);
            result.rom_file = ctx.description.Bios.RomFile;
            BuildRomImage(ctx);
        } catch (const std::bad_alloc&) {
            // A buffer that could not be obtained anywhere in a phase ends the run like
            // the phases' own memory checks do.
            ctx.diag.Fatal("Out of memory");
        }
    } catch (const FatalError& fatal) {
        console.flush();
        result.fatal = fatal.what();
        if (request.observe) request.observe(ctx);
        return result;
    }
    ctx.diag.PrintRunSummary();
    result.exit_status = 0;
    if (request.observe) request.observe(ctx);
    return result;
}

BuildResult RunBuild(platform::FileSystem& files, const BuildRequest& request) {
    std::ostringstream console;
    BuildResult result;
    try {
        result = RunBuild(files, request, console);
    } catch (const lzh::OutOfMemory& e) {
        result = BuildResult{};
        result.error_output = e.what();
    }
    result.console = console.str();
    return result;
}

}  // namespace fwforge
