// What the file layer does alike on every system: separators and composed names, and
// reading a file whole.
#include "platform/file_io.h"

#include <algorithm>

namespace fwforge::platform {

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

WholeFile ReadWholeFile(std::string_view name, std::uint64_t max_size) {
    WholeFile out;
    auto file = InputFile::Open(name);
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

}  // namespace fwforge::platform
