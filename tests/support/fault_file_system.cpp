#include "support/fault_file_system.h"

#include <cstdint>
#include <span>

namespace fwforge::testing {
namespace {

// The counter an operation is numbered by.
std::size_t Counter(FileOp op) {
    switch (op) {
        case FileOp::Open: return 0;
        case FileOp::Size: return 1;
        case FileOp::Read:
        case FileOp::ShortRead: return 2;
        case FileOp::Create: return 3;
        case FileOp::Write:
        case FileOp::ShortWrite: return 4;
        case FileOp::Commit: return 5;
    }
    return 0;
}

class FaultInput final : public platform::ReadableFile {
  public:
    FaultInput(FaultFileSystem& files, std::unique_ptr<platform::ReadableFile> inner)
        : files_(files), inner_(std::move(inner)) {}
    std::optional<std::uint64_t> Size() const override {
        if (files_.Fails(FileOp::Size)) return std::nullopt;
        return inner_->Size();
    }
    bool ReadExactly(std::span<std::uint8_t> buffer) override {
        if (files_.Fails(FileOp::ShortRead)) {
            // Half the bytes arrive, then the read stops.
            inner_->ReadExactly(buffer.first(buffer.size() / 2));
            return false;
        }
        if (files_.Fails(FileOp::Read)) return false;
        return inner_->ReadExactly(buffer);
    }

  private:
    FaultFileSystem& files_;
    std::unique_ptr<platform::ReadableFile> inner_;
};

class FaultOutput final : public platform::WritableFile {
  public:
    FaultOutput(FaultFileSystem& files, std::unique_ptr<platform::WritableFile> inner)
        : files_(files), inner_(std::move(inner)) {}
    bool Write(std::span<const std::uint8_t> data) override {
        if (files_.Fails(FileOp::ShortWrite)) {
            inner_->Write(data.first(data.size() / 2));
            return false;
        }
        if (files_.Fails(FileOp::Write)) return false;
        return inner_->Write(data);
    }
    bool Commit() override {
        // A failed commit is one that never reached the target: the file below is
        // dropped uncommitted, as the disk drops its temporary file.
        if (files_.Fails(FileOp::Commit)) return false;
        return inner_->Commit();
    }

  private:
    FaultFileSystem& files_;
    std::unique_ptr<platform::WritableFile> inner_;
};

}  // namespace

const char* FileOpName(FileOp op) {
    switch (op) {
        case FileOp::Open: return "open";
        case FileOp::Size: return "size";
        case FileOp::Read: return "read";
        case FileOp::ShortRead: return "short read";
        case FileOp::Create: return "create";
        case FileOp::Write: return "write";
        case FileOp::ShortWrite: return "short write";
        case FileOp::Commit: return "commit";
    }
    return "?";
}

std::size_t FaultFileSystem::Count(FileOp op) const {
    const std::lock_guard lock(mutex_);
    return counts_[Counter(op)];
}

bool FaultFileSystem::Fails(FileOp op) {
    const std::lock_guard lock(mutex_);
    // Read and ShortRead (Write and ShortWrite) share one counter: the first of the pair
    // asked for a given operation does not count it, the second does.
    const bool first_of_pair = op == FileOp::ShortRead || op == FileOp::ShortWrite;
    const std::size_t index = counts_[Counter(op)];
    if (!first_of_pair) ++counts_[Counter(op)];
    if (fault_ && fault_->op == op && fault_->index == index) {
        if (first_of_pair) ++counts_[Counter(op)];
        injected_ = true;
        return true;
    }
    return false;
}

std::unique_ptr<platform::ReadableFile> FaultFileSystem::Open(std::string_view name) {
    if (Fails(FileOp::Open)) return nullptr;
    auto file = inner_.Open(name);
    if (!file) return nullptr;
    return std::make_unique<FaultInput>(*this, std::move(file));
}

std::unique_ptr<platform::WritableFile> FaultFileSystem::Create(std::string_view name) {
    if (Fails(FileOp::Create)) return nullptr;
    auto file = inner_.Create(name);
    if (!file) return nullptr;
    return std::make_unique<FaultOutput>(*this, std::move(file));
}

}  // namespace fwforge::testing
