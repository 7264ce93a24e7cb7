#pragma once
// A file system that reads through to another one and keeps everything written in
// memory: a plan runs the real build on the files of the disk (or of any file system)
// and writes nothing there.

#include <memory>
#include <string_view>

#include "platform/file_system.h"

namespace fwforge::plan {

class OverlayFileSystem final : public platform::FileSystem {
  public:
    // `folders_below`: a file is created only where `below` has its folder, as a build on
    // `below` would create it (true for the disk).
    explicit OverlayFileSystem(platform::FileSystem& below, bool folders_below = false)
        : below_(below), folders_below_(folders_below) {}

    // A file written here (or put) is read from here; any other from below.
    std::unique_ptr<platform::ReadableFile> Open(std::string_view name) override;
    std::unique_ptr<platform::WritableFile> Create(std::string_view name) override;

    platform::MemoryFileSystem& written() { return written_; }

  private:
    platform::FileSystem& below_;
    bool folders_below_;
    platform::MemoryFileSystem written_;
};

}  // namespace fwforge::plan
