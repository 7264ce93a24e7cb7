#include "diagnostics/diagnostics.h"

#include <cstdarg>

#include "platform/text_format.h"

namespace fwforge {

void Diagnostics::Report(std::string_view message, Severity severity) {
    switch (severity) {
        case Severity::Fatal:
            Fatal(message);
        case Severity::Error:
            ++ErrorCount;
            out_ << "\nERROR: " << message << '\n';
            break;
        case Severity::Warning:
            ++WarningCount;
            out_ << "\nWARNING: " << message << '\n';
            break;
    }
}

void Diagnostics::Fatal(std::string_view message) {
    out_ << "\nFATAL ERROR: " << message << '\n';
    out_.flush();
    throw FatalError(std::string(message));
}

void Diagnostics::PrintRunSummary() {
    out_ << "\nThere were " << ErrorCount << " errors and " << WarningCount << " warnings\n";
    out_.flush();
}

void Diagnostics::Print(std::string_view text) {
    out_ << text;
}

void Diagnostics::Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    out_ << StrFormatV(format, args);
    va_end(args);
}

}  // namespace fwforge
