#include "edit/replace_cli.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "edit/replace.h"
#include "platform/file_io.h"
#include "platform/file_system.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

using inspect::ExitStatus;
constexpr ExitStatus kWritten = ExitStatus::Ok;
constexpr ExitStatus kRefused = ExitStatus::Problems;
constexpr ExitStatus kUnusable = ExitStatus::Unusable;

// Whether the two names denote one file: the same name, or two names of one existing file.
bool SameFile(const std::string& a, const std::string& b) {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path pa = platform::ToHostSeparators(a), pb = platform::ToHostSeparators(b);
    if (fs::equivalent(pa, pb, error)) return true;
    return fs::weakly_canonical(pa, error) == fs::weakly_canonical(pb, error) && !error;
}

std::optional<std::vector<std::uint8_t>> Load(const std::string& what, const std::string& name,
                                              std::ostream& out) {
    platform::WholeFile file = platform::ReadWholeFile(name);
    if (file.failure != platform::WholeFile::Failure::None) {
        out << "fwforge-inspect replace: cannot read " << what << " " << name << "\n";
        return std::nullopt;
    }
    return std::move(file.bytes);
}

}  // namespace

inspect::ExitStatus RunReplace(const ReplaceCommand& cl, std::ostream& out) {
    if (SameFile(cl.image, cl.out)) {
        out << "fwforge-inspect replace: OUT " << cl.out << " names the image itself; IMAGE "
            << "is never written over: give another OUT\n";
        return kUnusable;
    }
    auto image = Load("image", cl.image, out);
    if (!image) return kUnusable;
    ReplaceRequest request;
    request.selector = cl.selector;
    request.file_name = cl.file;
    request.as_is = cl.as_is;
    request.options = cl.options;
    auto file = Load("file", cl.file, out);
    if (!file) return kUnusable;
    request.file = std::move(*file);

    const ReplaceOutcome outcome = ReplaceModule(*image, request);
    if (!outcome.Done()) {
        out << "fwforge-inspect replace: " << outcome.error << "\n";
        return kRefused;
    }
    // Written whole or not at all: a failed write leaves any old OUT as it was.
    if (!platform::WriteWholeFile(platform::Disk(), cl.out, outcome.image)) {
        out << "fwforge-inspect replace: cannot write " << cl.out << "\n";
        return kUnusable;
    }
    for (const std::string& line : outcome.report) out << "  " << line << "\n";
    out << "replace: " << cl.out << " written\n";
    return kWritten;
}

}  // namespace fwforge::edit
