#include "rebuild/extract_cli.h"

#include <filesystem>

#include "check/problems.h"
#include "check/verify.h"
#include "image/image_model.h"
#include "image/image_reader.h"
#include "platform/file_io.h"
#include "platform/text_format.h"
#include "rebuild/rebuild.h"

namespace fwforge::rebuild {
namespace {

using namespace inspect;

ExitStatus Extract(std::span<const std::uint8_t> image, const ImageModel& model,
                   const std::string& dir, std::ostream& out) {
    if (!model.main) {
        out << ProblemLines(model.problems);
        return ExitStatus::Unusable;
    }
    std::error_code error;
    std::filesystem::create_directories(platform::ToHostSeparators(dir), error);
    if (error) {
        return Fail({FailureKind::Unwritable,
                     "fwforge-inspect: cannot create folder " + dir + ": " + error.message()},
                    out);
    }
    const Reconstruction rebuilt = Reconstruct(image, model);
    const ExtractPlan& plan = rebuilt.plan;
    for (const ExtractedFile& f : plan.files) {
        const auto written = WriteFile(platform::ComposeOutputName(dir, f.name), f.bytes);
        if (!written) return Fail(written.Error(), out);
        out << StrFormat("  %-28s %8zx bytes\n", f.name.c_str(), f.bytes.size());
    }
    out << StrFormat("extract: %zu files written to %s\n", plan.files.size(), dir.c_str());
    if (rebuilt.exact) {
        out << "rebuild.scr builds this image again byte for byte (built and compared)\n";
    } else {
        out << "rebuild.scr does not build this image again byte for byte: " << rebuilt.difference
            << "\n";
    }
    if (!plan.lost.empty()) {
        out << "Not recovered from the image (rebuild.scr comes as close as it can):\n";
        for (const std::string& l : plan.lost) out << "  - " << l << "\n";
    }
    out << ProblemLines(model.problems) << ProblemLines(plan.problems);
    ExitStatus status = model.problems.empty() && plan.problems.empty() ? ExitStatus::Ok
                                                                         : ExitStatus::Problems;
    for (const CannotUnpack& c : plan.cannot_unpack) {
        out << "CANNOT UNPACK: " << c.module << ": " << c.reason << "; " << c.change
            << " (its stored data is written as .lh5)\n";
        if (status == ExitStatus::Ok) status = ExitStatus::CannotUnpack;
    }
    return status;
}

}  // namespace

ExitStatus RunExtract(const inspect::Command& command, std::ostream& out) {
    const auto image = LoadImage(command.image);
    if (!image) return Fail(image.Error(), out);
    return Extract(*image, ReadImage(*image, command.options), command.argument, out);
}

}  // namespace fwforge::rebuild
