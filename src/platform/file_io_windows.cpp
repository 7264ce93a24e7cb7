// The file layer on Windows. Names are taken as the system takes them: either separator,
// any case, and bytes in the ANSI code page, as the narrow file functions would read
// them; they are widened here so that no length limit of the narrow functions applies.
#include "platform/file_io.h"

#ifdef _WIN32

#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>

namespace fwforge::platform {
namespace {

// ReadFile and WriteFile move at most a 32-bit count per call.
constexpr std::size_t kMaxTransfer = 1u << 30;

HANDLE Native(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

std::optional<std::wstring> Widen(const std::string& name) {
    if (name.empty() || name.size() > 0x7FFFFFFF) return std::nullopt;
    const int length = static_cast<int>(name.size());
    const int wide_length = ::MultiByteToWideChar(CP_ACP, 0, name.data(), length, nullptr, 0);
    if (wide_length <= 0) return std::nullopt;
    std::wstring wide(static_cast<std::size_t>(wide_length), L'\0');
    ::MultiByteToWideChar(CP_ACP, 0, name.data(), length, wide.data(), wide_length);
    return wide;
}

void Close(std::intptr_t handle) {
    if (handle != kNoHandle) ::CloseHandle(Native(handle));
}

}  // namespace

std::string ResolveExistingPath(std::string_view name) {
    return ToHostSeparators(name);
}

std::optional<InputFile> InputFile::Open(std::string_view name) {
    const auto wide = Widen(ResolveExistingPath(name));
    if (!wide) return std::nullopt;
    const HANDLE handle = ::CreateFileW(wide->c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return std::nullopt;
    // Only disk files: reading a device such as CON would wait for someone to type.
    if (::GetFileType(handle) != FILE_TYPE_DISK) {
        ::CloseHandle(handle);
        return std::nullopt;
    }
    return InputFile(reinterpret_cast<std::intptr_t>(handle));
}

InputFile::InputFile(InputFile&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoHandle)) {}

InputFile& InputFile::operator=(InputFile&& other) noexcept {
    if (this != &other) {
        Close(handle_);
        handle_ = std::exchange(other.handle_, kNoHandle);
    }
    return *this;
}

InputFile::~InputFile() {
    Close(handle_);
}

std::optional<std::uint64_t> InputFile::Size() const {
    LARGE_INTEGER size;
    if (!::GetFileSizeEx(Native(handle_), &size) || size.QuadPart < 0) return std::nullopt;
    return static_cast<std::uint64_t>(size.QuadPart);
}

bool InputFile::ReadExactly(std::span<std::uint8_t> buffer) {
    LARGE_INTEGER start{};
    if (!::SetFilePointerEx(Native(handle_), start, nullptr, FILE_BEGIN)) return false;
    std::size_t done = 0;
    while (done < buffer.size()) {
        const DWORD want = static_cast<DWORD>(std::min(buffer.size() - done, kMaxTransfer));
        DWORD got = 0;
        if (!::ReadFile(Native(handle_), buffer.data() + done, want, &got, nullptr) || got == 0)
            return false;
        done += got;
    }
    return true;
}

std::optional<OutputFile> OutputFile::Create(std::string_view name) {
    const std::string host = ToHostSeparators(name);
    const auto wide_host = Widen(host);
    if (!wide_host) return std::nullopt;
    // A device such as NUL has no old contents to keep: it is written in place.
    if (const HANDLE probe =
            ::CreateFileW(wide_host->c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        probe != INVALID_HANDLE_VALUE) {
        if (::GetFileType(probe) != FILE_TYPE_DISK) {
            return OutputFile(reinterpret_cast<std::intptr_t>(probe), std::string(), host);
        }
        ::CloseHandle(probe);
    }
    const std::size_t slash = host.find_last_of("\\/:");
    const std::string folder = slash == std::string::npos ? "" : host.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? host : host.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") return std::nullopt;
    // A folder of that name is no file to replace.
    const DWORD attributes = ::GetFileAttributesW(wide_host->c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        return std::nullopt;
    }
    // A name that no other output of this or another process takes at the same time.
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string temporary = folder + "." + base + ".tmp-" +
                                      std::to_string(::GetCurrentProcessId()) + "-" +
                                      std::to_string(random());
        const auto wide = Widen(temporary);
        if (!wide) return std::nullopt;
        const HANDLE handle =
            ::CreateFileW(wide->c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                          CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle != INVALID_HANDLE_VALUE)
            return OutputFile(reinterpret_cast<std::intptr_t>(handle), temporary, host);
        if (::GetLastError() != ERROR_FILE_EXISTS) return std::nullopt;
    }
    return std::nullopt;
}

void OutputFile::Discard() {
    Close(handle_);
    handle_ = kNoHandle;
    if (!temporary_.empty()) {
        if (const auto wide = Widen(temporary_)) ::DeleteFileW(wide->c_str());
    }
    temporary_.clear();
}

bool OutputFile::Write(std::span<const std::uint8_t> data) {
    if (handle_ == kNoHandle) return false;
    std::size_t done = 0;
    while (done < data.size()) {
        const DWORD want = static_cast<DWORD>(std::min(data.size() - done, kMaxTransfer));
        DWORD written = 0;
        if (!::WriteFile(Native(handle_), data.data() + done, want, &written, nullptr) ||
            written == 0)
            return false;
        done += written;
    }
    return true;
}

bool OutputFile::Commit() {
    if (handle_ == kNoHandle) return false;
    if (temporary_.empty()) {
        return ::CloseHandle(Native(std::exchange(handle_, kNoHandle))) != 0;
    }
    const bool stored = ::FlushFileBuffers(Native(handle_)) != 0;
    const bool closed = ::CloseHandle(Native(std::exchange(handle_, kNoHandle))) != 0;
    const auto from = Widen(temporary_);
    const auto to = Widen(target_);
    if (!stored || !closed || !from || !to ||
        !::MoveFileExW(from->c_str(), to->c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        Discard();
        return false;
    }
    temporary_.clear();
    return true;
}

}  // namespace fwforge::platform

#endif  // _WIN32
