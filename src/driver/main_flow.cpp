#include "driver/main_flow.h"

#include "driver/build_run.h"

namespace fwforge {

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
    BuildRequest request;
    request.output_path = argv[1];
    request.script = argv[2];
    request.compression_threads = compression_threads;
    request.reuse_compression = reuse_compression;
    // Options are looked for in the third and fourth positions only.
    for (int i = 3; i < argc && i <= 4; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-v") request.verbose = true;
        if (arg == "-c") request.compatibility = true;
    }
    return RunBuild(platform::Disk(), request, out).exit_status;
}

}  // namespace fwforge
