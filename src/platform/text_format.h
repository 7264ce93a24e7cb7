#pragma once
// printf-style formatting into a std::string; the system's messages and traces are
// C format strings, so they are kept as such and formatted here without a fixed buffer.

#include <cstdarg>
#include <string>

// Format strings are checked as C99's: MinGW builds use its C99 printf family (not the
// Windows runtime's), and GCC would otherwise check them as the Windows runtime's.
#if defined(__MINGW32__)
#define FWFORGE_PRINTF(format_index, first_arg) \
    __attribute__((format(gnu_printf, format_index, first_arg)))
#else
#define FWFORGE_PRINTF(format_index, first_arg) \
    __attribute__((format(printf, format_index, first_arg)))
#endif

namespace fwforge {

std::string StrFormat(const char* format, ...) FWFORGE_PRINTF(1, 2);
std::string StrFormatV(const char* format, va_list args);

}  // namespace fwforge
