// Builds a 16 MB image (32-bit mode) from about 200 modules of real data gathered from
// the system at run time (programs, libraries, text; 1 KB to 300 KB each) and prints the
// wall time, the time spent compressing and the peak memory.
// Targets: layout and I/O outside compression under 10% of the build time; peak memory
// under 3 x BiosSize + 16 MB.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "context/build_context.h"
#include "driver/image_build.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kBiosSize = 16 * 1024 * 1024;
constexpr std::size_t kModules = 200;

// Regular files of at least 1 KB under the usual system folders, in a stable order.
std::vector<fs::path> GatherSources() {
    std::vector<fs::path> found;
    for (const char* root :
         {"/usr/bin", "/usr/lib", "/usr/share/doc", "/usr/share/common-licenses", "/usr/include"}) {
        std::error_code ec;
        fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied,
                                            ec);
        for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            std::error_code sec;
            if (!it->is_regular_file(sec) || it->is_symlink(sec)) continue;
            if (it->file_size(sec) >= 1024) found.push_back(it->path());
        }
    }
    std::sort(found.begin(), found.end());
    // Spread the picks over everything found, so programs, libraries and text all come in.
    std::vector<fs::path> picked;
    const std::size_t step = std::max<std::size_t>(1, found.size() / (kModules * 4));
    for (std::size_t i = 0; i < found.size() && picked.size() < kModules * 4; i += step) {
        picked.push_back(found[i]);
    }
    return picked;
}

// Fills `to` with `size` bytes taken from the sources in turn, starting at `next`:
// whole files, the last one cut off, as a module made of real data of that size.
std::size_t FillFrom(const std::vector<fs::path>& sources, std::size_t& next, const fs::path& to,
                     std::size_t size) {
    std::vector<char> bytes;
    bytes.reserve(size);
    for (std::size_t tries = 0; bytes.size() < size && tries < sources.size(); ++tries) {
        std::ifstream in(sources[next++ % sources.size()], std::ios::binary);
        std::vector<char> chunk(size - bytes.size());
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + in.gcount());
    }
    std::ofstream(to, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes.size();
}

long PeakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int main() {
    const fs::path dir = fs::temp_directory_path() / "fwforge-image-build-bench";
    fs::remove_all(dir);
    fs::create_directories(dir);

    std::ostringstream console;
    fwforge::BuildContext ctx(console);
    fwforge::BuildDescription& d = ctx.description;
    d.Bios.BiosSize = kBiosSize;
    d.Bios.BootBlockSize = 0x10000;
    d.Bios.NvramSize = 0x10000;
    d.Bios.BiosTag = "BENCH";
    d.Bios.RomFile = (dir / "bench.rom").string();
    d.Init.BootBlockFile = (dir / "boot.bin").string();
    d.RomImage.Use32BitMode = true;
    d.RomImage.RomImageFlags = 0x01;
    ctx.options.OutputPath = dir.string();
    {
        std::vector<char> boot(0x10000);
        for (std::size_t i = 0; i < boot.size(); ++i) boot[i] = static_cast<char>(i * 7);
        std::ofstream(d.Init.BootBlockFile, std::ios::binary).write(boot.data(), boot.size());
    }

    // Sizes from 1 KB to 300 KB, most of them small (about 100 KB on average); one
    // module in five is stored uncompressed and kept below 64 KB, so the image holds them.
    const std::vector<fs::path> sources = GatherSources();
    if (sources.empty()) {
        std::fprintf(stderr, "no system files found to build modules from\n");
        return 1;
    }
    std::uint64_t input_bytes = 0;
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < kModules; ++i) {
        const bool stored = i % 5 == 4;
        const double x = ((i * 7919u) % 1000) / 1000.0;
        std::size_t want = 1024 + static_cast<std::size_t>(x * x * 299 * 1024);
        if (stored) want = std::min<std::size_t>(want, 64 * 1024);
        const fs::path name = dir / ("m" + std::to_string(i) + ".bin");
        input_bytes += FillFrom(sources, next, name, want);
        fwforge::ModuleEntry& m = d.ModuleTable[d.ModuleCount];
        m.FileName = name.string();
        m.Header.SetModuleId(static_cast<std::uint8_t>(0x01 + i % 0x1A));
        if (stored) m.Header.SetModuleAttributes(0x80);
        ++d.ModuleCount;
    }

    const long setup_kb = PeakKilobytes();
    const auto start = std::chrono::steady_clock::now();
    int status = 0;
    try {
        fwforge::BuildRomImage(ctx);
    } catch (const std::exception& e) {
        std::cerr << console.str() << "\nbuild failed: " << e.what() << "\n";
        status = 1;
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double compress = std::chrono::duration<double>(ctx.layout.CompressionTime).count();
    const long peak_kb = PeakKilobytes();
    const double other_share = wall > 0 ? (wall - compress) / wall * 100.0 : 0.0;
    const double peak_limit_mb = 3.0 * kBiosSize / 1048576.0 + 16.0;

    std::printf("modules:              %u (%.1f MB of input)\n", d.ModuleCount,
                input_bytes / 1048576.0);
    std::printf("wall time:            %.3f s\n", wall);
    std::printf("time compressing:     %.3f s\n", compress);
    std::printf("layout and I/O:       %.3f s (%.1f%% of the build, target < 10%%)\n",
                wall - compress, other_share);
    std::printf("peak memory:          %.1f MB (target < %.0f MB; %.1f MB before the build)\n",
                peak_kb / 1024.0, peak_limit_mb, setup_kb / 1024.0);
    fs::remove_all(dir);
    return status;
}
