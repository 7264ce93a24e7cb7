#pragma once
// A file system that makes one chosen operation fail: the Nth open, size, read, create,
// write or commit of the files below it. Reads and writes can also fail half done (a
// short read or write), which leaves part of the bytes moved. Every operation of each
// kind is counted, so a test can fail each one in turn.

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_system.h"

namespace fwforge::testing {

enum class FileOp { Open, Size, Read, ShortRead, Create, Write, ShortWrite, Commit };
inline constexpr std::array kFileOps = {FileOp::Open,   FileOp::Size,       FileOp::Read,
                                        FileOp::ShortRead, FileOp::Create, FileOp::Write,
                                        FileOp::ShortWrite, FileOp::Commit};
const char* FileOpName(FileOp op);

class FaultFileSystem final : public platform::FileSystem {
  public:
    explicit FaultFileSystem(platform::FileSystem& inner) : inner_(inner) {}

    // Makes the operation of `op`'s kind with this number (from 0) fail. Read and
    // ShortRead number the same reads, Write and ShortWrite the same writes.
    void FailAt(FileOp op, std::size_t index) { fault_ = Fault{op, index}; }
    // How many operations of `op`'s kind were asked for.
    std::size_t Count(FileOp op) const;
    // Whether the chosen fault was injected.
    bool Injected() const { return injected_; }

    std::unique_ptr<platform::ReadableFile> Open(std::string_view name) override;
    std::unique_ptr<platform::WritableFile> Create(std::string_view name) override;

    // For the files it hands out: whether the operation now asked for fails.
    bool Fails(FileOp op);

  private:
    struct Fault {
        FileOp op;
        std::size_t index;
    };
    platform::FileSystem& inner_;
    std::optional<Fault> fault_;
    mutable std::mutex mutex_;  // compression workers read while the build writes
    std::array<std::size_t, 6> counts_{};
    bool injected_ = false;
};

}  // namespace fwforge::testing
