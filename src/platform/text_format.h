#pragma once
// printf-style formatting into a std::string; the system's messages and traces are
// C format strings, so they are kept as such and formatted here without a fixed buffer.

#include <cstdarg>
#include <string>

namespace fwforge {

std::string StrFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string StrFormatV(const char* format, va_list args);

}  // namespace fwforge
