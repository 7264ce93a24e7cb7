// 666 compression runs over made-up inputs, one digest of all their output.
//
//   build/bench/compress_runs [--verify] [--time]
//
// The inputs are generated from fixed seeds, so the digest is the same on every
// machine: random bytes, text, code-like bytes, runs, short periods, small alphabets,
// tables, edited copies, sparse data and mixtures of these, from 0 bytes to 1 MB, with
// the sizes around the window's edges (8192, 8448, 16384) among them. They go through
// two encoders, as in a build, so that each run starts on the window the runs before it
// left; every fifth run uses an encoder held to a small token buffer, which cuts the
// blocks elsewhere. A change that is meant to make the encoder faster must leave the
// digest as pinned below; the program exits with status 1 when it does not.
// --verify also decodes every stream that was not cut off; --time prints the CPU time
// of the compression alone.

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/module_compressor.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kRuns = 666;
constexpr std::uint32_t kPinnedDigest = 0x06D5DC1C;
constexpr std::size_t kLargest = 1 << 20;

class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    std::uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<std::uint32_t>(state_ >> 16);
    }
    // 0 .. n - 1
    std::uint32_t Below(std::uint32_t n) { return n == 0 ? 0 : Next() % n; }
    std::uint8_t Byte() { return static_cast<std::uint8_t>(Next()); }

  private:
    std::uint64_t state_;
};

void RandomBytes(Random& rng, Bytes& out, std::size_t size) {
    while (out.size() < size) out.push_back(rng.Byte());
}

void Text(Random& rng, Bytes& out, std::size_t size) {
    static constexpr std::string_view kWords[] = {
        "the",    "of",      "module", "boot",  "block",   "table", "memory", "device",
        "option", "setup",   "value",  "error", "status",  "init",  "and",    "is",
        "a",      "to",      "in",     "that",  "License", "GNU",   "free",   "software",
        "PCI",    "address", "0x",     "when",  "each",    "which", "for",    "with"};
    while (out.size() < size) {
        const auto word = kWords[rng.Below(std::size(kWords))];
        out.insert(out.end(), word.begin(), word.end());
        const std::uint32_t p = rng.Below(40);
        out.push_back(p == 0 ? '\n' : p == 1 ? ',' : p == 2 ? '.' : ' ');
        if (p == 0 && rng.Below(3) == 0) out.insert(out.end(), 4 * (1 + rng.Below(3)), ' ');
    }
}

// Instruction-like templates with random immediates and addresses.
void Code(Random& rng, Bytes& out, std::size_t size) {
    static constexpr std::uint8_t kTemplates[][6] = {
        {0x55, 0x48, 0x89, 0xE5, 0, 0}, {0x48, 0x8B, 0x45, 0xF8, 0, 0},
        {0xE8, 0, 0, 0, 0, 0},          {0x89, 0xC7, 0xC3, 0, 0, 0},
        {0x0F, 0x1F, 0x44, 0x00, 0, 0}, {0x48, 0x83, 0xEC, 0x20, 0, 0},
        {0xB8, 0x01, 0x00, 0x00, 0, 0}, {0x74, 0x08, 0xEB, 0xFE, 0, 0}};
    static constexpr unsigned kLengths[] = {4, 4, 5, 3, 4, 4, 5, 2};
    while (out.size() < size) {
        const unsigned t = rng.Below(8);
        const std::size_t at = out.size();
        out.insert(out.end(), kTemplates[t], kTemplates[t] + kLengths[t]);
        if (t == 2) {
            const std::uint32_t target = rng.Below(64) * 16;
            for (int i = 0; i < 4; ++i)
                out[at + 1 + i] = static_cast<std::uint8_t>(target >> 8 * i);
        }
        if (rng.Below(5) == 0) out.push_back(rng.Byte());
    }
}

// Runs of one byte, some longer than a longest match.
void Runs(Random& rng, Bytes& out, std::size_t size) {
    while (out.size() < size) {
        const std::uint8_t b =
            rng.Below(4) == 0 ? rng.Byte() : static_cast<std::uint8_t>(rng.Below(3));
        out.insert(out.end(), 1 + rng.Below(rng.Below(2) ? 8 : 700), b);
    }
}

// A short pattern repeated, with rare changes.
void Periodic(Random& rng, Bytes& out, std::size_t size) {
    Bytes pattern;
    RandomBytes(rng, pattern, 1 + rng.Below(rng.Below(2) ? 16 : 400));
    while (out.size() < size) {
        out.insert(out.end(), pattern.begin(), pattern.end());
        if (rng.Below(50) == 0)
            pattern[rng.Below(static_cast<std::uint32_t>(pattern.size()))] = rng.Byte();
    }
}

// Few distinct bytes: many matches of equal length to choose among.
void SmallAlphabet(Random& rng, Bytes& out, std::size_t size) {
    const unsigned symbols = 2 + rng.Below(7);
    while (out.size() < size) out.push_back(static_cast<std::uint8_t>('a' + rng.Below(symbols)));
}

// Records of 16 or 32 bytes with counting fields.
void Table(Random& rng, Bytes& out, std::size_t size) {
    const unsigned width = rng.Below(2) ? 16 : 32;
    std::uint32_t counter = rng.Next();
    const std::uint32_t step = 1 + rng.Below(64);
    while (out.size() < size) {
        for (unsigned i = 0; i < width; ++i) {
            if (i < 4) {
                out.push_back(static_cast<std::uint8_t>(counter >> 8 * i));
            } else if (i < 8) {
                out.push_back(static_cast<std::uint8_t>(i == 4 ? rng.Below(4) : 0));
            } else {
                out.push_back(i % 5 == 0 ? 0xFF : static_cast<std::uint8_t>(i));
            }
        }
        counter += step;
    }
}

// A block repeated with a few edits, at distances on both sides of the window size.
void EditedCopies(Random& rng, Bytes& out, std::size_t size) {
    Bytes base;
    RandomBytes(rng, base, 2000 + rng.Below(18000));
    while (out.size() < size) {
        out.insert(out.end(), base.begin(), base.end());
        for (int i = 0; i < 4; ++i)
            base[rng.Below(static_cast<std::uint32_t>(base.size()))] = rng.Byte();
    }
}

// Erased flash and zeros with a few bytes in between.
void Sparse(Random& rng, Bytes& out, std::size_t size) {
    const std::uint8_t fill = rng.Below(2) ? 0xFF : 0x00;
    while (out.size() < size) out.push_back(rng.Below(60) == 0 ? rng.Byte() : fill);
}

using Generator = void (*)(Random&, Bytes&, std::size_t);
constexpr Generator kGenerators[] = {RandomBytes,   Text,  Code,         Runs,  Periodic,
                                     SmallAlphabet, Table, EditedCopies, Sparse};
constexpr unsigned kKinds = std::size(kGenerators);

Bytes Mixture(Random& rng, std::size_t size) {
    Bytes out;
    while (out.size() < size) {
        const std::size_t piece = std::min<std::size_t>(size - out.size(), 1 + rng.Below(30000));
        kGenerators[rng.Below(kKinds)](rng, out, out.size() + piece);
    }
    out.resize(size);
    return out;
}

// Sizes at and around the edges the encoder treats specially, then sizes spread
// evenly on a logarithmic scale up to 1 MB.
std::size_t RunSize(Random& rng, int run) {
    static constexpr std::size_t kEdges[] = {
        0,     1,     2,     3,     4,     7,     8,     255,   256,    257,    258,     1000,
        4095,  4096,  8190,  8191,  8192,  8193,  8447,  8448,  8449,   8704,   16383,   16384,
        16385, 16639, 16640, 16641, 24576, 24831, 65536, 65793, 262144, 524288, kLargest};
    if (run < static_cast<int>(std::size(kEdges))) return kEdges[run];
    const unsigned bits = rng.Below(21);
    const std::size_t low = std::size_t{1} << bits;
    return std::min(kLargest, low + rng.Below(static_cast<std::uint32_t>(low)));
}

std::uint32_t Fnv1a(std::uint32_t hash, std::span<const std::uint8_t> data) {
    for (std::uint8_t b : data) {
        hash ^= b;
        hash *= 16777619u;
    }
    return hash;
}

double CpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto secs = [](const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; };
    return secs(usage.ru_utime) + secs(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
    bool verify = false;
    bool time = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--verify") {
            verify = true;
        } else if (arg == "--time") {
            time = true;
        } else {
            std::fprintf(stderr, "usage: compress_runs [--verify] [--time]\n");
            return 1;
        }
    }

    fwforge::lzh::Encoder encoder;
    fwforge::lzh::EncoderLimits small;
    small.token_buffer_limit = 5000;
    fwforge::lzh::Encoder small_encoder(small);

    std::uint32_t digest = 2166136261u;
    std::size_t input_bytes = 0;
    std::size_t stopped = 0;
    double seconds = 0;
    Bytes out;
    for (int run = 0; run < kRuns; ++run) {
        Random rng(static_cast<std::uint64_t>(run) + 1);
        const std::size_t size = RunSize(rng, run);
        const unsigned kind = rng.Below(kKinds + 1);
        Bytes input;
        if (kind == kKinds) {
            input = Mixture(rng, size);
        } else {
            kGenerators[kind](rng, input, size);
            input.resize(size);
        }
        input_bytes += size;

        out.assign(size + 9, 0);
        const double start = CpuSeconds();
        const auto r = (run % 5 == 4 ? small_encoder : encoder).CompressModule(input, out);
        seconds += CpuSeconds() - start;
        stopped += r.stopped;
        const std::uint8_t summary[] = {static_cast<std::uint8_t>(r.stopped),
                                        static_cast<std::uint8_t>(r.slides),
                                        static_cast<std::uint8_t>(r.slides >> 8)};
        digest = Fnv1a(Fnv1a(digest, {out.data(), r.total}), summary);

        if (verify && !r.stopped) {
            std::string error;
            const auto decoded = fwforge::lzh::DecodeCompressedData({out.data(), r.total}, &error);
            if (!decoded || *decoded != input) {
                std::fprintf(stderr, "verify: run %d (%zu bytes) does not decode: %s\n", run, size,
                             error.c_str());
                return 1;
            }
        }
    }

    std::printf("%d runs, %.1f MB, %zu cut off by the output bound\n", kRuns,
                input_bytes / 1048576.0, stopped);
    if (verify) std::printf("verify: every stream that was not cut off decodes to its input\n");
    if (time) std::printf("compression CPU time: %.2f s\n", seconds);
    std::printf("digest of all output (FNV-1a): 0x%08X\n", digest);
    if (digest != kPinnedDigest) {
        std::printf("the pinned digest is 0x%08X: the encoder's output changed\n", kPinnedDigest);
        return 1;
    }
    return 0;
}
