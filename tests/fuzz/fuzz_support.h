#pragma once
// Shared pieces of the fuzz targets: a private working folder per process, so that
// fuzzed builds read and write only there.

#include <filesystem>
#include <string>

namespace fwforge::fuzz {

// Creates (once) a fresh folder under the temp folder, makes it the working folder
// and returns it.
const std::filesystem::path& WorkFolder();

// Writes `size` bytes to `name` inside the work folder and returns its path.
std::string WriteWorkFile(const std::string& name, const unsigned char* data, std::size_t size);

}  // namespace fwforge::fuzz
