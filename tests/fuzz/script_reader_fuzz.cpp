// Fuzzes the build-script reader: any script text must end in a completed parse or a
// fatal report, never a crash or an out-of-bounds access.

#include <cstddef>
#include <cstdint>
#include <sstream>

#include "compress/module_compressor.h"
#include "context/build_context.h"
#include "fuzz_support.h"
#include "script/script_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string script = fwforge::fuzz::WriteWorkFile("fuzz.scr", data, size);
    std::ostringstream console;
    fwforge::BuildContext ctx(console);
    try {
        fwforge::ParseBuildScript(ctx, script);
    } catch (const fwforge::FatalError&) {
    }
    return 0;
}
