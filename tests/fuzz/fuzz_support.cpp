#include "fuzz_support.h"

#include <unistd.h>

#include <fstream>

namespace fwforge::fuzz {

const std::filesystem::path& WorkFolder() {
    static const std::filesystem::path folder = [] {
        auto path = std::filesystem::temp_directory_path() /
                    ("fwforge-fuzz-" + std::to_string(::getpid()));
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
        std::filesystem::current_path(path);
        return path;
    }();
    return folder;
}

std::string WriteWorkFile(const std::string& name, const unsigned char* data, std::size_t size) {
    const std::string path = (WorkFolder() / name).string();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return path;
}

}  // namespace fwforge::fuzz
