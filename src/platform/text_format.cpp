#include "platform/text_format.h"

#include <cstdio>

namespace fwforge {

std::string StrFormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, args);
        text.resize(static_cast<std::size_t>(length));
    }
    return text;
}

std::string StrFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = StrFormatV(format, args);
    va_end(args);
    return text;
}

}  // namespace fwforge
