#pragma once
// Inputs and helpers shared by the compression tests: deterministic synthetic data,
// files read from the system at test time, and a one-call compression.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "compress/block_coder.h"
#include "compress/lzh_decoder.h"
#include "compress/module_compressor.h"
#include "support/test_files.h"

namespace fwforge::lzh {
// Readable token lists in test failures.
inline void PrintTo(const Lh5Token& t, std::ostream* os) {
    if (t.length == 0) {
        *os << "lit(" << unsigned{t.literal} << ")";
    } else {
        *os << "match(" << t.length << ", " << t.distance << ")";
    }
}
}  // namespace fwforge::lzh

namespace fwforge::lzh::testing {

using Bytes = std::vector<std::uint8_t>;
using fwforge::testing::ReadBytes;
using fwforge::testing::TempDir;
using fwforge::testing::WriteBytes;

// A small fixed-seed generator, so that "random" inputs are the same everywhere.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    std::uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<std::uint32_t>(state_ >> 16);
    }
    std::uint32_t Below(std::uint32_t n) { return Next() % n; }

private:
    std::uint64_t state_;
};

inline Bytes RandomBytes(std::size_t size, std::uint64_t seed) {
    Rng rng(seed);
    Bytes out(size);
    for (auto& b : out) b = static_cast<std::uint8_t>(rng.Next());
    return out;
}

// Words from a small vocabulary with punctuation and line breaks: text-like repeats.
inline Bytes SyntheticText(std::size_t size, std::uint64_t seed) {
    static constexpr std::array<std::string_view, 24> kWords = {
        "the", "module", "image", "boot", "block", "header", "address", "segment",
        "checksum", "size", "of", "and", "is", "a", "to", "rom", "compressed", "data",
        "firmware", "table", "entry", "length", "window", "match"};
    Rng rng(seed);
    Bytes out;
    out.reserve(size + 16);
    while (out.size() < size) {
        const auto word = kWords[rng.Below(kWords.size())];
        out.insert(out.end(), word.begin(), word.end());
        const std::uint32_t r = rng.Below(16);
        out.push_back(r == 0 ? '\n' : r == 1 ? ',' : ' ');
    }
    out.resize(size);
    return out;
}

// Structured binary: records with counters, small integers and runs, like firmware.
inline Bytes SyntheticBinary(std::size_t size, std::uint64_t seed) {
    Rng rng(seed);
    Bytes out;
    out.reserve(size + 32);
    std::uint32_t counter = 0x1000;
    while (out.size() < size) {
        switch (rng.Below(4)) {
            case 0:  // a record with a rising address
                counter += 4 + rng.Below(64);
                for (int i = 0; i < 4; ++i)
                    out.push_back(static_cast<std::uint8_t>(counter >> (8 * i)));
                out.push_back(static_cast<std::uint8_t>(rng.Below(8)));
                out.push_back(0);
                break;
            case 1:  // a run
                out.insert(out.end(), 3 + rng.Below(40),
                           static_cast<std::uint8_t>(rng.Below(2) ? 0 : 0xFF));
                break;
            case 2:  // opcode-like bytes from a small set
                for (std::uint32_t i = 0, n = 2 + rng.Below(12); i < n; ++i) {
                    static constexpr std::array<std::uint8_t, 8> kOps = {0x8B, 0x89, 0xE8, 0xC3,
                                                                         0x55, 0x48, 0x0F, 0x74};
                    out.push_back(kOps[rng.Below(kOps.size())]);
                }
                break;
            default:  // noise
                for (std::uint32_t i = 0, n = 1 + rng.Below(6); i < n; ++i) {
                    out.push_back(static_cast<std::uint8_t>(rng.Next()));
                }
        }
    }
    out.resize(size);
    return out;
}

// An executable-like mix: code-like records, text, noise, runs of padding, and copies
// of earlier stretches (up to 1000 bytes, near and beyond the window's reach), so that
// long matches, 256-byte matches, slides and unmatched stretches all occur.
inline Bytes ExecutableMix(std::size_t size, std::uint64_t seed) {
    Rng rng(seed);
    Bytes out;
    out.reserve(size + 1024);
    while (out.size() < size) {
        const std::uint32_t kind = rng.Below(10);
        if (kind < 3) {
            const Bytes part = SyntheticBinary(64 + rng.Below(1500), rng.Next());
            out.insert(out.end(), part.begin(), part.end());
        } else if (kind < 5) {
            const Bytes part = SyntheticText(32 + rng.Below(800), rng.Next());
            out.insert(out.end(), part.begin(), part.end());
        } else if (kind == 5) {
            for (std::uint32_t i = 0, n = 16 + rng.Below(400); i < n; ++i) {
                out.push_back(static_cast<std::uint8_t>(rng.Next()));
            }
        } else if (kind == 6) {
            out.insert(out.end(), 16 + rng.Below(700),
                       static_cast<std::uint8_t>(rng.Below(2) ? 0 : 0xFF));
        } else if (out.size() > 64) {
            // A copy of an earlier stretch, sometimes with one byte changed.
            const std::size_t back =
                1 + rng.Below(static_cast<std::uint32_t>(std::min<std::size_t>(out.size(), 12000)));
            const std::size_t from = out.size() - back;
            const std::size_t n = std::min<std::size_t>(4 + rng.Below(1000), back);
            for (std::size_t i = 0; i < n; ++i) out.push_back(out[from + i]);
            if (rng.Below(3) == 0)
                out[out.size() - 1 - rng.Below(static_cast<std::uint32_t>(n))] ^= 0x20;
        }
    }
    out.resize(size);
    return out;
}

inline Bytes Filled(std::size_t size, std::uint8_t value) { return Bytes(size, value); }

inline Bytes Repeated(std::string_view pattern, std::size_t size) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i)
        out[i] = static_cast<std::uint8_t>(pattern[i % pattern.size()]);
    return out;
}

inline Bytes FromString(std::string_view text) { return Bytes(text.begin(), text.end()); }

// Up to `max_files` regular files of at least `min_size` bytes below `dir`, each cut
// to `max_bytes`, in name order; empty when the folder is missing.
inline std::vector<std::pair<std::string, Bytes>> SystemFiles(const std::filesystem::path& dir,
                                                       std::size_t max_files,
                                                       std::size_t min_size,
                                                       std::size_t max_bytes) {
    namespace fs = std::filesystem;
    std::vector<fs::path> names;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code type_ec;
        if (it->is_regular_file(type_ec) && !it->is_symlink(type_ec) &&
            it->file_size(type_ec) >= min_size) {
            names.push_back(it->path());
        }
    }
    std::sort(names.begin(), names.end());
    std::vector<std::pair<std::string, Bytes>> files;
    for (const auto& name : names) {
        if (files.size() >= max_files) break;
        std::ifstream in(name, std::ios::binary);
        if (!in) continue;
        Bytes data(max_bytes);
        in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(max_bytes));
        data.resize(static_cast<std::size_t>(in.gcount()));
        if (data.size() >= std::min(min_size, max_bytes))
            files.emplace_back(name.string(), std::move(data));
    }
    return files;
}

// Compresses into a buffer of exactly size + 9 bytes and cuts the result to its total.
inline Bytes Compress(Encoder& encoder, std::span<const std::uint8_t> input,
                      CompressResult* result = nullptr) {
    Bytes out(input.size() + 9, 0xFF);
    const CompressResult r = encoder.CompressModule(input, out);
    out.resize(r.total);
    if (result != nullptr) *result = r;
    return out;
}

inline Bytes CompressFresh(std::span<const std::uint8_t> input, CompressResult* result = nullptr) {
    Encoder encoder;
    return Compress(encoder, input, result);
}

// 32-bit FNV-1a.
inline std::uint32_t Fnv1a(std::span<const std::uint8_t> data) {
    std::uint32_t hash = 2166136261u;
    for (std::uint8_t b : data) {
        hash ^= b;
        hash *= 16777619u;
    }
    return hash;
}

inline Lh5Token Lit(std::uint8_t byte) { return {0, 0, byte}; }
inline Lh5Token Match(unsigned length, unsigned distance) {
    return {static_cast<std::uint16_t>(length), static_cast<std::uint16_t>(distance), 0};
}

struct Coded {
    Bytes stream;
    bool stopped;
};

// Stores the tokens in the token buffer format, counts them, and codes them as the
// encoder would: every block but the last through FlushBlock, the last through
// FinishStream. `bound` is the consumed-byte counter.
inline Coded CodeBlocks(const std::vector<std::vector<Lh5Token>>& blocks, std::uint32_t bound) {
    BlockCoder coder;
    Bytes sink(bound + 1, 0xEE);
    coder.StartRun(sink.data(), &bound);
    coder.ResetCoder();
    for (std::size_t b = 0; b < blocks.size(); ++b) {
        Bytes tokens;
        std::size_t flag_at = 0;
        for (std::size_t i = 0; i < blocks[b].size(); ++i) {
            const Lh5Token& t = blocks[b][i];
            if (i % 8 == 0) {
                flag_at = tokens.size();
                tokens.push_back(0);
            }
            if (t.length == 0) {
                tokens.push_back(t.literal);
                coder.CountLiteral(t.literal);
            } else {
                const unsigned code = t.distance - 1u;
                tokens[flag_at] |= static_cast<std::uint8_t>(0x80 >> (i % 8));
                tokens.push_back(static_cast<std::uint8_t>(t.length - 3));
                tokens.push_back(static_cast<std::uint8_t>(code >> 8));
                tokens.push_back(static_cast<std::uint8_t>(code));
                coder.CountMatch(t.length, code);
            }
        }
        if (b + 1 < blocks.size()) {
            coder.FlushBlock(tokens);
        } else {
            coder.FinishStream(tokens);
        }
    }
    EXPECT_EQ(sink[coder.Written()], 0xEE) << "wrote past its count";
    sink.resize(coder.Written());
    return {sink, coder.Stopped()};
}

// 19 letters with Fibonacci counts (10945 bytes, one block of literals) in shuffled
// order: their Huffman tree is 18 deep, so the code must be flattened to 16 bits.
inline Bytes FibonacciLetters() {
    std::vector<std::uint32_t> counts = {1, 1};
    while (counts.size() < 19)
        counts.push_back(counts[counts.size() - 1] + counts[counts.size() - 2]);
    Bytes pool;
    for (std::size_t s = 0; s < counts.size(); ++s)
        pool.insert(pool.end(), counts[s], static_cast<std::uint8_t>('a' + s));
    Rng rng(3);
    for (std::size_t i = pool.size(); i > 1; --i)
        std::swap(pool[i - 1], pool[rng.Below(static_cast<std::uint32_t>(i))]);
    return pool;
}

inline std::vector<Lh5Token> Literals(std::span<const std::uint8_t> bytes) {
    std::vector<Lh5Token> tokens;
    for (auto b : bytes) tokens.push_back(Lit(b));
    return tokens;
}

}  // namespace fwforge::lzh::testing
