#pragma once
// Temporary folders and small file helpers for tests that build real files.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_system.h"

namespace fwforge::testing {

// A fresh folder under the system's temp folder, removed with everything in it when
// the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    // The path of `name` inside the folder, as a string.
    std::string File(std::string_view name) const;

private:
    std::filesystem::path path_;
};

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes);
void WriteText(const std::string& path, std::string_view text);
std::vector<std::uint8_t> ReadBytes(const std::string& path);

// Every file of the folder `dir`, put into `files` under its whole path.
void PutFolder(platform::MemoryFileSystem& files, const TempDir& dir);

// Turns "\n" line ends into the CR LF that build scripts use.
std::string WithCrLf(std::string_view text);

// The lines of `text`, without their line ends.
std::vector<std::string> SplitLines(const std::string& text);

// Deterministic pseudo-random bytes (xorshift) for fixtures.
std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed);

}  // namespace fwforge::testing
