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
    const auto wide = Widen(ToHostSeparators(name));
    if (!wide) return std::nullopt;
    const HANDLE handle =
        ::CreateFileW(wide->c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                      CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return std::nullopt;
    return OutputFile(reinterpret_cast<std::intptr_t>(handle));
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoHandle)) {}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
    if (this != &other) {
        Close(handle_);
        handle_ = std::exchange(other.handle_, kNoHandle);
    }
    return *this;
}

OutputFile::~OutputFile() {
    Close(handle_);
}

bool OutputFile::Write(std::span<const std::uint8_t> data) {
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

}  // namespace fwforge::platform

#endif  // _WIN32
