// Patterns for the bundled examples' generated input files: code-like bytes, menu text,
// noise, a small picture, an option ROM and a boot block, each from a fixed seed so every
// run gives the same bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace example_inputs {

using Bytes = std::vector<std::uint8_t>;

class Generator {
  public:
    explicit Generator(std::uint32_t seed) : state_(seed) {}
    std::uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    std::uint8_t Byte() { return static_cast<std::uint8_t>(Next() >> 24); }

  private:
    std::uint32_t state_;
};

// Something like real-mode code: short instruction sequences drawn from a small set,
// with varying immediates, so it compresses the way code does.
inline Bytes Code(std::size_t size, std::uint32_t seed) {
    static const std::vector<Bytes> kSnippets = {
        {0x55, 0x8B, 0xEC},
        {0x5D, 0xC3},
        {0xB8, 0, 0},
        {0x89, 0x46, 0},
        {0xE8, 0, 0},
        {0x74, 0},
        {0x75, 0},
        {0x3C, 0},
        {0xBA, 0xF8, 0x0C},
        {0xEF},
        {0xED},
        {0x66, 0x0F, 0xB6, 0xC0},
        {0xE4, 0x61},
        {0xE6, 0x80},
        {0x50, 0x53, 0x51, 0x52},
        {0x5A, 0x59, 0x5B, 0x58},
        {0xCD, 0x15},
        {0x26, 0x8A, 0x07},
    };
    Generator g(seed);
    Bytes out;
    while (out.size() < size) {
        const Bytes& s = kSnippets[g.Next() % kSnippets.size()];
        for (std::uint8_t b : s)
            out.push_back(b == 0 ? static_cast<std::uint8_t>(g.Next() % 16) : b);
    }
    out.resize(size);
    return out;
}

// Menu and message text, as a setup or string module holds it.
inline Bytes Text(std::size_t size, std::uint32_t seed) {
    static const char* const kWords[] = {
        "System",         "Date",       "Time",    "Boot",       "Device",   "Priority",
        "Memory",         "Frequency",  "Enabled", "Disabled",   "Auto",     "Keyboard",
        "Storage",        "Controller", "Power",   "Management", "Fan",      "Speed",
        "Temperature",    "Save",       "Exit",    "Changes",    "Security", "Password",
        "Virtualization", "Support",    "Network", "Stack",      "Legacy",   "Option",
    };
    Generator g(seed);
    std::string text;
    while (text.size() < size) {
        text += kWords[g.Next() % (sizeof kWords / sizeof kWords[0])];
        text += g.Next() % 7 == 0 ? std::string("\0", 1) : std::string(" ");
    }
    text.resize(size);
    return Bytes(text.begin(), text.end());
}

inline Bytes Noise(std::size_t size, std::uint32_t seed) {
    Generator g(seed);
    Bytes out(size);
    for (auto& b : out) b = g.Byte();
    return out;
}

// A small picture: runs of a few palette colours.
inline Bytes Picture(std::size_t width, std::size_t height, std::uint32_t seed) {
    Generator g(seed);
    Bytes out;
    for (std::size_t y = 0; y < height; ++y) {
        std::size_t x = 0;
        while (x < width) {
            const std::size_t run = 1 + g.Next() % 24;
            const std::uint8_t colour = static_cast<std::uint8_t>(g.Next() % 6);
            for (std::size_t i = 0; i < run && x < width; ++i, ++x) out.push_back(colour);
        }
    }
    return out;
}

// An option ROM: 0x55 0xAA signature, length in 512-byte blocks, code after it.
inline Bytes OptionRom(std::size_t size, std::uint32_t seed) {
    Bytes out = Code(size, seed);
    out[0] = 0x55;
    out[1] = 0xAA;
    out[2] = static_cast<std::uint8_t>(size / 512);
    return out;
}

inline Bytes BootBlock() {
    Bytes out = Code(0x10000, 1);
    // Reset vector at the top: a far jump, then room for the tag the build stamps in.
    const Bytes jump = {0xEA, 0x5B, 0xE0, 0x00, 0xF0};
    std::copy(jump.begin(), jump.end(), out.end() - 16);
    return out;
}

inline bool Write(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

using InputFiles = std::vector<std::pair<const char*, Bytes>>;

// The generator's main: writes every file into the folder named on the command line,
// with an empty out/ folder next to them for the build's own files.
inline int WriteInputs(int argc, char** argv, const char* program, InputFiles (*make)()) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: %s <folder>\n", program);
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::error_code ec;
    std::filesystem::create_directories(folder / "out", ec);
    for (const auto& [name, bytes] : make()) {
        if (!Write(folder / name, bytes)) {
            std::fprintf(stderr, "cannot write %s\n", (folder / name).string().c_str());
            return 1;
        }
    }
    return 0;
}

}  // namespace example_inputs
