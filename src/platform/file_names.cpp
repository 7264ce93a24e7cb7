// What the file layer does alike on every system: separators, composed names, and an
// output file's ownership of its handle and temporary name.
#include "platform/file_io.h"

#include <algorithm>
#include <utility>

namespace fwforge::platform {

OutputFile::OutputFile(OutputFile&& other) noexcept
    : handle_(std::exchange(other.handle_, kNoHandle)),
      temporary_(std::move(other.temporary_)),
      target_(std::move(other.target_)) {
    other.temporary_.clear();
}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
    if (this != &other) {
        Discard();
        handle_ = std::exchange(other.handle_, kNoHandle);
        temporary_ = std::move(other.temporary_);
        target_ = std::move(other.target_);
        other.temporary_.clear();
    }
    return *this;
}

OutputFile::~OutputFile() {
    Discard();
}

std::string ToHostSeparators(std::string_view name) {
    std::string host(name);
    std::replace(host.begin(), host.end(), kOtherSeparator, kHostSeparator);
    return host;
}

std::string ComposeOutputName(std::string_view output_path, std::string_view rest) {
    std::string name(output_path);
    if (!name.empty() && name.back() != '/' && name.back() != '\\') name += kHostSeparator;
    name += rest;
    return name;
}

}  // namespace fwforge::platform
