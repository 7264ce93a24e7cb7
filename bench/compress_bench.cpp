// Compression speed against gzip -6 on the same bytes.
//
//   build/bench/compress_bench [--mb N] [--from DIR]... [--verify] [--digest]
//
// Gathers a corpus at run time (executables from /usr/bin, libraries from /usr/lib,
// text from /usr/share/doc, plus synthetic data; N MB in all, 24 by default; with
// --from, the files below the folders given, in that order, instead), cuts it into
// modules of at most 1 MB as a ROM build would see them, compresses every module with
// CompressModule through one encoder, and times `gzip -6` on the same bytes in the
// same run, in pairs: each round times one pass of each, so that both see the same
// load of a shared machine, and the ratio of each pair is printed with their median.
// --verify also decodes every module that was not cut off. --digest
// compresses once and prints only the digest of all output, untimed: a change that
// is meant to make the encoder faster must leave it as it was (on the same machine,
// since the corpus comes from its files).

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/module_compressor.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kModuleLimit = 1 << 20;
constexpr int kRepeats = 5;  // pairs; the machine may be shared

struct Corpus {
    std::vector<Bytes> modules;
    std::size_t bytes = 0;
    std::size_t files = 0;
};

// Adds a file's bytes as modules of at most 1 MB; false once `budget` is used up.
bool AddFile(Corpus& corpus, const fs::path& path, std::size_t budget) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return true;
    while (corpus.bytes < budget) {
        Bytes chunk(std::min(kModuleLimit, budget - corpus.bytes));
        in.read(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(chunk.size()));
        chunk.resize(static_cast<std::size_t>(in.gcount()));
        if (chunk.empty()) break;
        corpus.bytes += chunk.size();
        corpus.modules.push_back(std::move(chunk));
    }
    ++corpus.files;
    return corpus.bytes < budget;
}

// Regular files below `root` (recursively when asked) in name order, skipping already
// compressed ones, until `budget` bytes of the corpus are reached.
void AddTree(Corpus& corpus, const fs::path& root, bool recursive, std::size_t min_size,
             std::size_t max_size, std::size_t budget) {
    std::vector<fs::path> paths;
    std::error_code ec;
    auto consider = [&](const fs::directory_entry& entry) {
        std::error_code e;
        if (!entry.is_regular_file(e) || entry.is_symlink(e)) return;
        const auto size = entry.file_size(e);
        const std::string ext = entry.path().extension().string();
        if (e || size < min_size || size > max_size || ext == ".gz" || ext == ".xz" ||
            ext == ".bz2" || ext == ".zst" || ext == ".png" || ext == ".jpg") {
            return;
        }
        paths.push_back(entry.path());
    };
    if (recursive) {
        for (fs::recursive_directory_iterator
                 it(root, fs::directory_options::skip_permission_denied, ec),
             end;
             !ec && it != end; it.increment(ec)) {
            consider(*it);
        }
    } else {
        for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
            consider(*it);
    }
    std::sort(paths.begin(), paths.end());
    for (const auto& path : paths) {
        if (!AddFile(corpus, path, budget)) return;
    }
}

// Text-like and table-like data, fixed seeds.
void AddSynthetic(Corpus& corpus, std::size_t size) {
    std::uint64_t state = 0x2545F4914F6CDD1Dull;
    auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<std::uint32_t>(state >> 16);
    };
    static constexpr std::string_view kWords[] = {"option", "rom",   "module", "pci",    "setup",
                                                  "boot",   "table", "the",    "of",     "memory",
                                                  "device", "init",  "0x",     "status", "error"};
    for (std::size_t done = 0; done < size; done += kModuleLimit / 2) {
        Bytes module;
        while (module.size() < kModuleLimit / 2) {
            if (next() % 3 == 0) {
                const std::uint32_t v = next();
                for (int i = 0; i < 8; ++i)
                    module.push_back(static_cast<std::uint8_t>(i < 4 ? v >> (8 * i) : 0));
            } else {
                const auto word = kWords[next() % std::size(kWords)];
                module.insert(module.end(), word.begin(), word.end());
                module.push_back(next() % 9 == 0 ? '\n' : ' ');
            }
        }
        module.insert(module.end(), 4096, 0xFF);  // erased flash
        corpus.bytes += module.size();
        corpus.modules.push_back(std::move(module));
        ++corpus.files;
    }
}

// 32-bit FNV-1a, continued from `hash` (0 = start): a digest of every output byte, so
// that a change in the encoder's speed can be checked not to change its output.
std::uint32_t Fnv1a(std::uint32_t hash, std::span<const std::uint8_t> data) {
    if (hash == 0) hash = 2166136261u;
    for (std::uint8_t b : data) {
        hash ^= b;
        hash *= 16777619u;
    }
    return hash;
}

double Seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// CPU seconds (user + system) of this process or of its finished children. The
// machine may be shared, so CPU time is the fairer measure of "one core".
double CpuSeconds(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    auto secs = [](const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; };
    return secs(usage.ru_utime) + secs(usage.ru_stime);
}

struct Timing {
    double wall = 1e30;
    double cpu = 1e30;
};

}  // namespace

int main(int argc, char** argv) {
    std::size_t megabytes = 24;
    bool verify = false;
    bool digest_only = false;
    std::vector<std::string> roots;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--mb" && i + 1 < argc) {
            megabytes = static_cast<std::size_t>(std::max(1, std::atoi(argv[++i])));
        } else if (arg == "--verify") {
            verify = true;
        } else if (arg == "--digest") {
            digest_only = true;
        } else if (arg == "--from" && i + 1 < argc) {
            roots.emplace_back(argv[++i]);
        } else {
            std::fprintf(stderr,
                         "usage: compress_bench [--mb N] [--from DIR]... [--verify] [--digest]\n");
            return 1;
        }
    }
    const std::size_t total = megabytes << 20;

    Corpus corpus;
    if (roots.empty()) {
        AddTree(corpus, "/usr/bin", false, 4096, 64 << 20, total * 40 / 100);
        AddTree(corpus, "/usr/lib/x86_64-linux-gnu", false, 4096, 64 << 20, total * 65 / 100);
        AddTree(corpus, "/usr/share/doc", true, 2048, 8 << 20, total * 80 / 100);
        AddTree(corpus, "/usr/share", true, 2048, 8 << 20, total * 85 / 100);
        AddSynthetic(corpus, total - std::min(total, corpus.bytes));
    } else {
        for (const auto& root : roots) AddTree(corpus, root, true, 1, 64 << 20, total);
    }
    std::printf(
        "corpus: %.1f MB in %zu modules (of at most 1 MB) from %zu files and synthetic data\n",
        corpus.bytes / 1048576.0, corpus.modules.size(), corpus.files);

    // CompressModule, one encoder for all modules as in a build; `digest` is set by
    // the first pass.
    std::size_t compressed = 0;
    std::size_t stopped = 0;
    std::uint32_t digest = 0;
    bool first_pass = true;
    auto compress_all = [&](Timing& best) {
        fwforge::lzh::Encoder encoder;
        Bytes out;
        compressed = stopped = 0;
        const auto start = Clock::now();
        const double start_cpu = CpuSeconds(RUSAGE_SELF);
        for (const auto& module : corpus.modules) {
            out.resize(module.size() + 9);
            const auto r = encoder.CompressModule(module, out);
            compressed += r.total;
            stopped += r.stopped;
            if (first_pass) digest = Fnv1a(digest, {out.data(), r.total});
        }
        const double cpu = CpuSeconds(RUSAGE_SELF) - start_cpu;
        best.wall = std::min(best.wall, Seconds(Clock::now() - start));
        best.cpu = std::min(best.cpu, cpu);
        first_pass = false;
        return cpu;
    };

    Timing lzh;
    if (digest_only) {
        compress_all(lzh);
        std::printf("digest of all CompressModule output (FNV-1a): 0x%08X\n", digest);
        return 0;
    }

    if (verify) {
        fwforge::lzh::Encoder encoder;
        std::size_t checked = 0;
        for (const auto& module : corpus.modules) {
            Bytes out(module.size() + 9);
            const auto r = encoder.CompressModule(module, out);
            if (r.stopped) continue;
            out.resize(r.total);
            std::string error;
            const auto decoded = fwforge::lzh::DecodeCompressedData(out, &error);
            if (!decoded || *decoded != module) {
                std::fprintf(stderr, "verify: module %zu does not decode: %s\n", checked,
                             error.c_str());
                return 1;
            }
            ++checked;
        }
        std::printf("verify: %zu modules decode to their input\n", checked);
    }

    // gzip -6 on the same bytes, one file, one process.
    const fs::path dir =
        fs::temp_directory_path() / ("compress_bench." + std::to_string(::getpid()));
    fs::create_directories(dir);
    {
        std::ofstream raw(dir / "corpus.bin", std::ios::binary);
        for (const auto& module : corpus.modules) {
            raw.write(reinterpret_cast<const char*>(module.data()),
                      static_cast<std::streamsize>(module.size()));
        }
    }
    const std::string command = "gzip -6 -c '" + (dir / "corpus.bin").string() + "' > '" +
                                (dir / "corpus.gz").string() + "'";
    Timing gzip;
    std::vector<double> pair_ratios;
    for (int round = 0; round < kRepeats; ++round) {
        const double lzh_cpu = compress_all(lzh);
        const auto start = Clock::now();
        const double start_cpu = CpuSeconds(RUSAGE_CHILDREN);
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "gzip -6 failed; is gzip installed?\n");
            fs::remove_all(dir);
            return 1;
        }
        const double gzip_cpu = CpuSeconds(RUSAGE_CHILDREN) - start_cpu;
        gzip.wall = std::min(gzip.wall, Seconds(Clock::now() - start));
        gzip.cpu = std::min(gzip.cpu, gzip_cpu);
        pair_ratios.push_back(lzh_cpu / gzip_cpu);
    }
    const auto gzip_size = fs::file_size(dir / "corpus.gz");
    fs::remove_all(dir);

    const double mb = corpus.bytes / 1048576.0;
    std::printf("best of %d runs         CPU s    MB/s (CPU)   wall s   MB/s (wall)   ratio\n",
                kRepeats);
    std::printf("CompressModule  %12.2f %11.2f %10.2f %12.2f   %.3f\n", lzh.cpu, mb / lzh.cpu,
                lzh.wall, mb / lzh.wall, static_cast<double>(compressed) / corpus.bytes);
    std::printf("gzip -6         %12.2f %11.2f %10.2f %12.2f   %.3f\n", gzip.cpu, mb / gzip.cpu,
                gzip.wall, mb / gzip.wall, static_cast<double>(gzip_size) / corpus.bytes);
    std::printf("time ratio CompressModule / gzip -6: %.2f CPU, %.2f wall (below 1 = faster)\n",
                lzh.cpu / gzip.cpu, lzh.wall / gzip.wall);
    std::printf("CPU time ratio of each pair:");
    for (const double ratio : pair_ratios) std::printf(" %.2f", ratio);
    std::sort(pair_ratios.begin(), pair_ratios.end());
    std::printf("; median %.2f\n", pair_ratios[pair_ratios.size() / 2]);
    std::printf("modules cut off by the output bound: %zu\n", stopped);
    std::printf("digest of all CompressModule output (FNV-1a): 0x%08X\n", digest);
    return 0;
}
