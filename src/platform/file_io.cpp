// The file layer on POSIX systems; file_io_windows.cpp is the Windows one.
#include "platform/file_io.h"

#ifndef _WIN32

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>

namespace fwforge::platform {
namespace {

int Fd(std::intptr_t handle) {
    return static_cast<int>(handle);
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// The one entry of `dir` whose name equals `component` ignoring case; nullopt when
// there is none or more than one.
std::optional<std::string> FindCaseInsensitive(const std::string& dir,
                                               const std::string& component) {
    DIR* handle = ::opendir(dir.empty() ? "." : dir.c_str());
    if (handle == nullptr) return std::nullopt;
    std::optional<std::string> found;
    int matches = 0;
    while (const dirent* entry = ::readdir(handle)) {
        if (::strcasecmp(entry->d_name, component.c_str()) == 0) {
            found = entry->d_name;
            ++matches;
        }
    }
    ::closedir(handle);
    if (matches != 1) return std::nullopt;
    return found;
}

// Resolves the components of `path` one by one against the file system (the last one
// only when `include_last`); nullopt at the first component that matches nothing.
std::optional<std::string> ResolveComponents(const std::string& path, bool include_last) {
    std::string resolved;
    std::size_t pos = 0;
    if (!path.empty() && path[0] == kHostSeparator) {
        resolved = "/";
        pos = 1;
    }
    while (pos <= path.size()) {
        std::size_t end = path.find(kHostSeparator, pos);
        const bool last = end == std::string::npos;
        if (last) end = path.size();
        std::string component = path.substr(pos, end - pos);
        if (last && !include_last) {
            resolved += component;
            return resolved;
        }
        if (!component.empty()) {
            std::string candidate = resolved + component;
            if (component == "." || component == ".." || Exists(candidate)) {
                resolved = candidate;
            } else {
                std::string dir = resolved;
                if (dir.size() > 1 && dir.back() == kHostSeparator) dir.pop_back();
                auto match = FindCaseInsensitive(dir, component);
                if (!match) return std::nullopt;
                resolved += *match;
            }
        }
        if (last) return resolved;
        if (!resolved.empty() && resolved.back() != kHostSeparator) resolved += kHostSeparator;
        pos = end + 1;
    }
    return resolved;
}

}  // namespace

std::string ResolveExistingPath(std::string_view name) {
    std::string host = ToHostSeparators(name);
    if (host.empty() || Exists(host)) return host;
    return ResolveComponents(host, true).value_or(host);
}

std::optional<InputFile> InputFile::Open(std::string_view name) {
    const std::string path = ResolveExistingPath(name);
    if (path.empty()) return std::nullopt;
    // Not blocking: a named pipe must not hold the build until some writer comes along.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    struct stat st;
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || S_ISFIFO(st.st_mode) ||
        S_ISSOCK(st.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    return InputFile(fd);
}

InputFile::InputFile(InputFile&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoHandle)) {}

InputFile& InputFile::operator=(InputFile&& other) noexcept {
    if (this != &other) {
        if (handle_ != kNoHandle) ::close(Fd(handle_));
        handle_ = std::exchange(other.handle_, kNoHandle);
    }
    return *this;
}

InputFile::~InputFile() {
    if (handle_ != kNoHandle) ::close(Fd(handle_));
}

std::optional<std::uint64_t> InputFile::Size() const {
    struct stat st;
    if (::fstat(Fd(handle_), &st) != 0 || st.st_size < 0) return std::nullopt;
    return static_cast<std::uint64_t>(st.st_size);
}

bool InputFile::ReadExactly(std::span<std::uint8_t> buffer) {
    std::size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t n = ::pread(Fd(handle_), buffer.data() + done, buffer.size() - done,
                                  static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::optional<OutputFile> OutputFile::Create(std::string_view name) {
    std::string host = ToHostSeparators(name);
    if (host.empty()) return std::nullopt;
    // The folders above the new file are looked up like input names; the file's own
    // name stays as composed.
    if (!Exists(host)) {
        if (auto resolved = ResolveComponents(host, false)) host = *resolved;
    }
    struct stat st;
    if (::stat(host.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        // A device or a pipe has no old contents to keep, and no folder to put a
        // temporary file in.
        const int fd = ::open(host.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) return std::nullopt;
        return OutputFile(fd, std::string(), host);
    }
    // A symbolic link keeps pointing at the file it named: the file is replaced.
    std::string target = host;
    if (::lstat(host.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        char* real = ::realpath(host.c_str(), nullptr);
        if (real == nullptr) return std::nullopt;
        target = real;
        ::free(real);
    }
    const std::size_t slash = target.rfind(kHostSeparator);
    const std::string folder = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") return std::nullopt;
    // A name that no other output of this or another process takes at the same time.
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string temporary = folder + "." + base + ".tmp-" + std::to_string(::getpid()) +
                                      "-" + std::to_string(random());
        const int fd =
            ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) return OutputFile(fd, temporary, target);
        if (errno != EEXIST) return std::nullopt;
    }
    return std::nullopt;
}

void OutputFile::Discard() {
    if (handle_ != kNoHandle) ::close(Fd(handle_));
    handle_ = kNoHandle;
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
    temporary_.clear();
}

bool OutputFile::Write(std::span<const std::uint8_t> data) {
    if (handle_ == kNoHandle) return false;
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(Fd(handle_), data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool OutputFile::Commit() {
    if (handle_ == kNoHandle) return false;
    if (temporary_.empty()) {
        const bool closed = ::close(Fd(std::exchange(handle_, kNoHandle))) == 0;
        return closed;
    }
    // The bytes reach the disk before the name does, so that a crash cannot leave the
    // target's name on a file whose contents were never stored.
    const bool stored = ::fsync(Fd(handle_)) == 0;
    const bool closed = ::close(Fd(std::exchange(handle_, kNoHandle))) == 0;
    if (!stored || !closed || ::rename(temporary_.c_str(), target_.c_str()) != 0) {
        Discard();
        return false;
    }
    temporary_.clear();
    return true;
}

}  // namespace fwforge::platform

#endif  // !_WIN32
