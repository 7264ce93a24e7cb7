// What the file layer does alike on every system: separators and composed names.
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

}  // namespace fwforge::platform
