#include "plan/overlay_files.h"

#include <filesystem>
#include <system_error>

namespace fwforge::plan {

std::unique_ptr<platform::ReadableFile> OverlayFileSystem::Open(std::string_view name) {
    if (written_.Find(name)) return written_.Open(name);
    return below_.Open(name);
}

std::unique_ptr<platform::WritableFile> OverlayFileSystem::Create(std::string_view name) {
    if (folders_below_) {
        const std::filesystem::path folder = std::filesystem::path(name).parent_path();
        std::error_code error;
        if (!folder.empty() && !std::filesystem::is_directory(folder, error)) return nullptr;
    }
    return written_.Create(name);
}

}  // namespace fwforge::plan
