#include "support/test_files.h"

#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace fwforge::testing {

TempDir::TempDir() {
    // A random stem keeps test processes that run at the same time apart.
    static const unsigned stem = std::random_device{}();
    static std::atomic<unsigned> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("fwforge-test-" + std::to_string(stem) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::File(std::string_view name) const {
    return (path_ / name).string();
}

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write test file " + path);
}

void WriteText(const std::string& path, std::string_view text) {
    WriteBytes(path, std::vector<std::uint8_t>(text.begin(), text.end()));
}

std::vector<std::uint8_t> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read test file " + path);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string WithCrLf(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed) {
    std::vector<std::uint8_t> bytes(count);
    std::uint32_t x = seed ? seed : 0x9E3779B9u;
    for (auto& b : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<std::uint8_t>(x >> 24);
    }
    return bytes;
}

void PutFolder(platform::MemoryFileSystem& files, const TempDir& dir) {
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        if (entry.is_regular_file()) files.Put(entry.path().string(), ReadBytes(entry.path().string()));
    }
}

}  // namespace fwforge::testing
