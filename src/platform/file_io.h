#pragma once
// The file layer: open and size an input file, read it whole, create and write an
// output file whole. Every failure goes back to the caller, which owns the message.
//
// Names come from build scripts written for Windows and from a script text that has
// been lower-cased. On Windows they are the system's own: either separator, any case,
// the ANSI code page, and composed names use "\". Elsewhere input names are opened
// after turning "\" into "/", and a name that does not exist exactly as written is
// looked up case-insensitively, folder by folder (exactly one match is used). Files the
// tool creates keep the name exactly as composed; only the folders above them are
// looked up that way.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>
#include <utility>

namespace fwforge::platform {

// A file descriptor, or a Windows handle; both systems use -1 for "none".
inline constexpr std::intptr_t kNoHandle = -1;

// The separator of the host's names, and the one names from elsewhere may use instead.
#ifdef _WIN32
inline constexpr char kHostSeparator = '\\';
inline constexpr char kOtherSeparator = '/';
#else
inline constexpr char kHostSeparator = '/';
inline constexpr char kOtherSeparator = '\\';
#endif

// The host form of a name from a script or the command line: the other separator
// becomes the host's ("\" becomes "/", or "/" becomes "\" on Windows).
std::string ToHostSeparators(std::string_view name);

// The existing path that `name` denotes, exactly or case-insensitively; the host form
// of the name itself when nothing (or more than one candidate) matches.
std::string ResolveExistingPath(std::string_view name);

// `output_path`, the host separator and `rest`; no second separator when
// `output_path` already ends in "/" or "\".
std::string ComposeOutputName(std::string_view output_path, std::string_view rest);

class InputFile {
  public:
    // Opens an existing file for reading; nullopt when it cannot be opened.
    static std::optional<InputFile> Open(std::string_view name);

    InputFile(InputFile&& other) noexcept;
    InputFile& operator=(InputFile&& other) noexcept;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile();

    // The file's size in bytes; nullopt when it cannot be determined.
    std::optional<std::uint64_t> Size() const;
    // Reads `count` bytes from the start of the file into `buffer`; false when the
    // read fails or returns fewer bytes.
    bool ReadExactly(std::span<std::uint8_t> buffer);

  private:
    explicit InputFile(std::intptr_t handle) : handle_(handle) {}
    std::intptr_t handle_ = kNoHandle;
};

// An output written whole or not at all. On disk the bytes go to a temporary file beside
// the target (".NAME.tmp-PID-N" in the same folder) and only Commit() puts it in the
// target's place, replacing an existing file in one step: a run that fails or is killed
// leaves the old file or none, never a part of one. A file dropped without a successful
// Commit() takes its temporary file with it. A target that exists and is not a regular
// file (a device such as /dev/null) is written in place.
class OutputFile {
  public:
    // Starts a new file `name` (replacing an existing one on Commit); nullopt when that
    // fails.
    static std::optional<OutputFile> Create(std::string_view name);

    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&& other) noexcept;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    // Writes the whole buffer; false when the write fails or is short.
    bool Write(std::span<const std::uint8_t> data);
    // Flushes, closes and puts the file in its target's place; false when any of that
    // fails, and then the target stays as it was. Nothing may be written after it.
    bool Commit();

  private:
    OutputFile(std::intptr_t handle, std::string temporary, std::string target)
        : handle_(handle), temporary_(std::move(temporary)), target_(std::move(target)) {}
    void Discard();

    std::intptr_t handle_ = kNoHandle;
    std::string temporary_;  // empty when written in place
    std::string target_;
};

}  // namespace fwforge::platform
