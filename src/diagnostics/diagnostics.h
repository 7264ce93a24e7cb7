#pragma once
// The one message reporter of a build, and the console it writes to. All console text
// of a build goes through here, to one stream, so messages and progress lines stay in
// the order in which they were made.

#include <cstdint>
#include <exception>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/text_format.h"

namespace fwforge {

enum class Severity : std::uint8_t { Fatal = 0, Error = 1, Warning = 2 };

// Thrown by a fatal report after its line has been printed; the program's entry point
// turns it into exit status 1. Nothing between the report and the entry point prints.
class FatalError : public std::exception {
  public:
    explicit FatalError(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};

class Diagnostics {
  public:
    explicit Diagnostics(std::ostream& out) : out_(out) {}

    // Prints an empty line and the message with its severity's prefix. A fatal report
    // flushes the console and throws FatalError; the other two count and return.
    void Report(std::string_view message, Severity severity);
    [[noreturn]] void Fatal(std::string_view message);

    // "\nThere were %d errors and %d warnings\n".
    void PrintRunSummary();

    // Console output of progress lines and traces.
    void Print(std::string_view text);
    void Printf(const char* format, ...) FWFORGE_PRINTF(2, 3);
    std::ostream& out() { return out_; }

    std::uint16_t ErrorCount = 0;
    std::uint16_t WarningCount = 0;

  private:
    std::ostream& out_;
};

}  // namespace fwforge
