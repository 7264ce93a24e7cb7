// Fuzzes the whole build on fuzzed scripts. The scripts name a fixed set of small input
// files (boot block, modules, a ROM-hole file) in the fuzzer's private work folder; a
// fatal report must end the build cleanly.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string_view>
#include <vector>

#include "compress/module_compressor.h"
#include "context/build_context.h"
#include "driver/main_flow.h"
#include "fuzz_support.h"
#include "script/script_reader.h"

namespace {

// Images above this size only make the fuzzer slow; the reader is fuzzed on its own.
constexpr std::uint32_t kLargestImage = 8u << 20;

std::vector<unsigned char> Pattern(std::size_t size, unsigned seed) {
    std::vector<unsigned char> bytes(size);
    unsigned x = seed;
    for (std::size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        // Half text-like, half noise, so that compression has something to find.
        bytes[i] = (i / 64) % 2 ? static_cast<unsigned char>(x >> 24)
                                : static_cast<unsigned char>('a' + i % 23);
    }
    return bytes;
}

void MakeInputFiles() {
    using fwforge::fuzz::WriteWorkFile;
    const auto boot = Pattern(0x10000, 1);
    WriteWorkFile("bb.bin", boot.data(), boot.size());
    const auto m1 = Pattern(3000, 2);
    WriteWorkFile("m1.bin", m1.data(), m1.size());
    const auto m2 = Pattern(20000, 3);
    WriteWorkFile("m2.bin", m2.data(), m2.size());
    const auto hole = Pattern(100, 4);
    WriteWorkFile("hole.bin", hole.data(), hole.size());
    std::filesystem::create_directories(fwforge::fuzz::WorkFolder() / "out");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    MakeInputFiles();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Every name a fuzzed script can reach must stay inside the work folder.
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.find_first_of("/\\") != std::string_view::npos) return 0;

    const std::string script = fwforge::fuzz::WriteWorkFile("build.scr", data, size);
    std::ostringstream console;
    {
        fwforge::BuildContext probe(console);
        try {
            fwforge::ParseBuildScript(probe, script);
        } catch (const fwforge::FatalError&) {
            return 0;
        }
        if (probe.description.Bios.BiosSize > kLargestImage) return 0;
    }
    const char* argv[] = {"fwforge", "out", "build.scr", "-v"};
    try {
        fwforge::RunMainFlow(4, argv, console);
    } catch (const fwforge::lzh::OutOfMemory&) {
    }
    return 0;
}
