#include "plan/overlay_files.h"

namespace fwforge::plan {

std::unique_ptr<platform::ReadableFile> OverlayFileSystem::Open(std::string_view name) {
    if (written_.Find(name)) return written_.Open(name);
    return below_.Open(name);
}

std::unique_ptr<platform::WritableFile> OverlayFileSystem::Create(std::string_view name) {
    return written_.Create(name);
}

}  // namespace fwforge::plan
