#pragma once
// The seam between a build and its files. Every phase reads its inputs and writes its
// outputs through a FileSystem: the disk for the command-line tools, memory for a build
// run inside another program (replace, tests), which then hands its outputs back as
// values. Each step (open, size, read, create, write, commit) can fail on its own, and
// each caller keeps the message the build gives for that step.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fwforge::platform {

class ReadableFile {
  public:
    virtual ~ReadableFile() = default;
    // The file's size in bytes; nullopt when it cannot be determined.
    virtual std::optional<std::uint64_t> Size() const = 0;
    // Reads exactly buffer.size() bytes from the start of the file; false when the read
    // fails or returns fewer bytes.
    virtual bool ReadExactly(std::span<std::uint8_t> buffer) = 0;
};

class WritableFile {
  public:
    virtual ~WritableFile() = default;
    // Appends the whole buffer; false when the write fails or is short.
    virtual bool Write(std::span<const std::uint8_t> data) = 0;
    // Makes what was written the file, whole, in place of any file of that name; false
    // when that fails. Until then, and for good when it fails or the file is dropped
    // without it, the name keeps its old file or none: never a part of the new one.
    virtual bool Commit() = 0;
};

class FileSystem {
  public:
    virtual ~FileSystem() = default;
    // An existing file opened for reading; null when it cannot be opened.
    virtual std::unique_ptr<ReadableFile> Open(std::string_view name) = 0;
    // A file created anew (an existing one is replaced when it is committed); null when
    // that fails.
    virtual std::unique_ptr<WritableFile> Create(std::string_view name) = 0;
};

// The host's files, with the name rules of file_io.h. It holds no state.
FileSystem& Disk();

// Files held in memory. Names are compared after turning either separator into "/" and
// dropping "./" components and repeated separators; a name that is not held exactly is
// looked up ignoring case (exactly one match is used), as on the disk. A file must not
// be committed anew while it is open for reading.
class MemoryFileSystem final : public FileSystem {
  public:
    std::unique_ptr<ReadableFile> Open(std::string_view name) override;
    std::unique_ptr<WritableFile> Create(std::string_view name) override;

    void Put(std::string_view name, std::vector<std::uint8_t> bytes);
    void Put(std::string_view name, std::string_view text);
    // The file's bytes; null when there is no such file.
    const std::vector<std::uint8_t>* Find(std::string_view name) const;
    // The names of every file held, normalised.
    std::vector<std::string> Names() const;

  private:
    const std::vector<std::uint8_t>* FindLocked(const std::string& key) const;

    // Compression workers read module files while the build creates its own.
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<std::uint8_t>> files_;
};

// A whole file read into memory, or which step failed.
struct WholeFile {
    enum class Failure { None, Open, Size, Read };
    std::vector<std::uint8_t> bytes;
    Failure failure = Failure::None;
};

// Reads the file `name` whole; Failure::Size as well when it holds more than `max_size`
// bytes.
WholeFile ReadWholeFile(FileSystem& files, std::string_view name,
                        std::uint64_t max_size = 0xFFFFFFFFu);
inline WholeFile ReadWholeFile(std::string_view name, std::uint64_t max_size = 0xFFFFFFFFu) {
    return ReadWholeFile(Disk(), name, max_size);
}

// Writes `data` as the file `name`, created anew and committed; false when creating,
// writing or committing fails.
bool WriteWholeFile(FileSystem& files, std::string_view name, std::span<const std::uint8_t> data);

}  // namespace fwforge::platform
