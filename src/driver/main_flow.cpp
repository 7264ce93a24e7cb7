#include "driver/main_flow.h"

#include <new>

#include "context/build_context.h"
#include "driver/image_build.h"
#include "script/script_reader.h"

namespace fwforge {
namespace {

void PrintBanner(std::ostream& out) {
    out << "ZELBIOS FWFORGE Version " << kToolVersion << " (STRATA 2)\n"
        << "Copyright (C) The FWFORGE Project. All rights reserved.\n\n";
}

}  // namespace

int RunMainFlow(int argc, const char* const* argv, std::ostream& out,
                unsigned compression_threads, bool reuse_compression) {
    if (argc < 3) {
        PrintBanner(out);
        out << "Usage - FWFORGE OutputPath ScriptFile [-v] [-c]\n"
            << "    -v  be verbose\n"
            << "    -c  produce compatability mode main BIOS header\n";
        out.flush();
        return 1;
    }
    PrintBanner(out);

    BuildContext ctx(out);
    ctx.options.OutputPath = argv[1];
    ctx.options.CompressionThreads = compression_threads;
    ctx.options.ReuseCompression = reuse_compression;
    // Options are looked for in the third and fourth positions only.
    for (int i = 3; i < argc && i <= 4; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-v") ctx.options.VerboseMode = true;
        if (arg == "-c") ctx.options.CompatibilityMode = true;
    }
    if (ctx.options.VerboseMode) out << "VERBOSE MODE: \n\n";
    if (ctx.options.CompatibilityMode) {
        out << "COMPATABILITY MODE: Main BIOS header will be pre-version 1.00 style \n\n";
    }

    try {
        try {
            ParseBuildScript(ctx, argv[2]);
            BuildRomImage(ctx);
        } catch (const std::bad_alloc&) {
            // A buffer that could not be obtained anywhere in a phase ends the run like
            // the phases' own memory checks do.
            ctx.diag.Fatal("Out of memory");
        }
    } catch (const FatalError&) {
        out.flush();
        return 1;
    }
    ctx.diag.PrintRunSummary();
    return 0;
}

}  // namespace fwforge
