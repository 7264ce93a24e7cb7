#include "platform/file_system.h"

#include <algorithm>

#include "platform/file_io.h"

namespace fwforge::platform {
namespace {

class DiskInput final : public ReadableFile {
  public:
    explicit DiskInput(InputFile file) : file_(std::move(file)) {}
    std::optional<std::uint64_t> Size() const override { return file_.Size(); }
    bool ReadExactly(std::span<std::uint8_t> buffer) override { return file_.ReadExactly(buffer); }

  private:
    InputFile file_;
};

class DiskOutput final : public WritableFile {
  public:
    explicit DiskOutput(OutputFile file) : file_(std::move(file)) {}
    bool Write(std::span<const std::uint8_t> data) override { return file_.Write(data); }
    bool Commit() override { return file_.Commit(); }

  private:
    OutputFile file_;
};

class DiskFileSystem final : public FileSystem {
  public:
    std::unique_ptr<ReadableFile> Open(std::string_view name) override {
        auto file = InputFile::Open(name);
        if (!file) return nullptr;
        return std::make_unique<DiskInput>(std::move(*file));
    }
    std::unique_ptr<WritableFile> Create(std::string_view name) override {
        auto file = OutputFile::Create(name);
        if (!file) return nullptr;
        return std::make_unique<DiskOutput>(std::move(*file));
    }
};

class MemoryInput final : public ReadableFile {
  public:
    explicit MemoryInput(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}
    std::optional<std::uint64_t> Size() const override { return bytes_.size(); }
    bool ReadExactly(std::span<std::uint8_t> buffer) override {
        if (buffer.size() > bytes_.size()) return false;
        std::copy_n(bytes_.begin(), buffer.size(), buffer.begin());
        return true;
    }

  private:
    const std::vector<std::uint8_t>& bytes_;
};

class MemoryOutput final : public WritableFile {
  public:
    MemoryOutput(MemoryFileSystem& files, std::string name)
        : files_(files), name_(std::move(name)) {}
    bool Write(std::span<const std::uint8_t> data) override {
        if (committed_) return false;
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        return true;
    }
    bool Commit() override {
        if (committed_) return false;
        committed_ = true;
        files_.Put(name_, std::move(bytes_));
        return true;
    }

  private:
    MemoryFileSystem& files_;
    std::string name_;
    std::vector<std::uint8_t> bytes_;
    bool committed_ = false;
};

std::string Normalise(std::string_view name) {
    std::string out;
    if (!name.empty() && (name.front() == '/' || name.front() == '\\')) out.push_back('/');
    std::size_t pos = 0;
    while (pos < name.size()) {
        std::size_t end = name.find_first_of("/\\", pos);
        if (end == std::string_view::npos) end = name.size();
        const std::string_view part = name.substr(pos, end - pos);
        if (!part.empty() && part != ".") {
            if (!out.empty() && out.back() != '/') out.push_back('/');
            out.append(part.begin(), part.end());
        }
        pos = end + 1;
    }
    return out;
}

bool SameIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

}  // namespace

FileSystem& Disk() {
    static DiskFileSystem disk;  // stateless
    return disk;
}

const std::vector<std::uint8_t>* MemoryFileSystem::Find(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    return FindLocked(Normalise(name));
}

std::vector<std::string> MemoryFileSystem::Names() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& entry : files_) names.push_back(entry.first);
    return names;
}

const std::vector<std::uint8_t>* MemoryFileSystem::FindLocked(const std::string& key) const {
    if (auto it = files_.find(key); it != files_.end()) return &it->second;
    const std::vector<std::uint8_t>* found = nullptr;
    for (const auto& [held, bytes] : files_) {
        if (SameIgnoringCase(held, key)) {
            if (found) return nullptr;
            found = &bytes;
        }
    }
    return found;
}

std::unique_ptr<ReadableFile> MemoryFileSystem::Open(std::string_view name) {
    const std::vector<std::uint8_t>* bytes = Find(name);
    if (!bytes) return nullptr;
    return std::make_unique<MemoryInput>(*bytes);
}

std::unique_ptr<WritableFile> MemoryFileSystem::Create(std::string_view name) {
    std::string key = Normalise(name);
    if (key.empty()) return nullptr;
    return std::make_unique<MemoryOutput>(*this, std::move(key));
}

void MemoryFileSystem::Put(std::string_view name, std::vector<std::uint8_t> bytes) {
    const std::string key = Normalise(name);
    const std::lock_guard lock(mutex_);
    files_[key] = std::move(bytes);
}

void MemoryFileSystem::Put(std::string_view name, std::string_view text) {
    Put(name, std::vector<std::uint8_t>(text.begin(), text.end()));
}

WholeFile ReadWholeFile(FileSystem& files, std::string_view name, std::uint64_t max_size) {
    WholeFile out;
    auto file = files.Open(name);
    if (!file) {
        out.failure = WholeFile::Failure::Open;
        return out;
    }
    const std::optional<std::uint64_t> size = file->Size();
    if (!size || *size > max_size) {
        out.failure = WholeFile::Failure::Size;
        return out;
    }
    out.bytes.resize(static_cast<std::size_t>(*size));
    if (!file->ReadExactly(out.bytes)) {
        out.bytes.clear();
        out.failure = WholeFile::Failure::Read;
    }
    return out;
}

bool WriteWholeFile(FileSystem& files, std::string_view name, std::span<const std::uint8_t> data) {
    auto file = files.Create(name);
    return file && file->Write(data) && file->Commit();
}

}  // namespace fwforge::platform
