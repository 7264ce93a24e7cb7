#pragma once
// How a command of fwforge-inspect ends: its exit status, and an expected failure (a file
// that cannot be read, a change that is refused) as a kind and the message that says it.
// Damage found in an image is no failure of the command: it is what the checks report.

#include <optional>
#include <string>
#include <utility>

namespace fwforge::inspect {

// The exit statuses of every command of fwforge-inspect.
enum class ExitStatus : int {
    Ok = 0,        // all in order; for replace, OUT written
    Problems = 1,  // the image is damaged, differs (diff), or the change is refused (replace)
    Unusable = 2,  // a bad command line, or a file that cannot be read or written
    // verify, extract: intact as built, but some compressed modules cannot be unpacked
    CannotUnpack = 3,
    // plan --budget: the script builds, but a region is fuller than the budget
    OverBudget = 4,
};

constexpr int ExitCode(ExitStatus status) { return static_cast<int>(status); }

// What kind of expected failure ended a step.
enum class FailureKind {
    Unreadable,  // a file that cannot be opened or read
    Unwritable,  // a file or folder that cannot be created or written
    Refused,     // a change that the image cannot take
};

struct Failure {
    FailureKind kind = FailureKind::Refused;
    std::string message;  // a whole line of text, without its line end

    ExitStatus Status() const {
        return kind == FailureKind::Refused ? ExitStatus::Problems : ExitStatus::Unusable;
    }
};

// A value, or the expected failure that kept it from being made.
template <typename T>
class Result {
public:
    Result(T value) : value_(std::move(value)) {}
    Result(Failure failure) : failure_(std::move(failure)) {}

    bool Ok() const { return value_.has_value(); }
    explicit operator bool() const { return Ok(); }
    T& operator*() { return *value_; }
    const T& operator*() const { return *value_; }
    T* operator->() { return &*value_; }
    const T* operator->() const { return &*value_; }
    const Failure& Error() const { return failure_; }

private:
    std::optional<T> value_;
    Failure failure_;
};

}  // namespace fwforge::inspect
