#include "rebuild/extract_cli.h"

#include <filesystem>

#include "inspect/image_model.h"
#include "inspect/module_data.h"
#include "inspect/verify.h"
#include "platform/file_io.h"
#include "platform/file_system.h"
#include "platform/text_format.h"
#include "rebuild/rebuild.h"

namespace fwforge::rebuild {
namespace {

using namespace inspect;
constexpr int kOk = kStatusOk;
constexpr int kProblems = kStatusProblems;
constexpr int kUnusable = kStatusUnusable;

int Extract(std::span<const std::uint8_t> image, const ImageModel& model, const std::string& dir,
            std::ostream& out) {
    if (!model.main) {
        for (const Finding& f : model.problems)
            out << "PROBLEM: " << f.where << ": " << f.what << "\n";
        return kUnusable;
    }
    std::error_code error;
    std::filesystem::create_directories(platform::ToHostSeparators(dir), error);
    if (error) {
        out << "fwforge-inspect: cannot create folder " << dir << ": " << error.message() << "\n";
        return kUnusable;
    }
    const Reconstruction rebuilt = Reconstruct(image, model);
    const ExtractPlan& plan = rebuilt.plan;
    int status = kOk;
    for (const ExtractedFile& f : plan.files) {
        const std::string path = platform::ComposeOutputName(dir, f.name);
        if (!platform::WriteWholeFile(platform::Disk(), path, f.bytes)) {
            out << "fwforge-inspect: cannot write " << path << "\n";
            return kUnusable;
        }
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
    for (const Finding& f : model.problems) {
        out << "PROBLEM: " << f.where << ": " << f.what << "\n";
        status = kProblems;
    }
    for (const Finding& f : plan.problems) {
        out << "PROBLEM: " << f.where << ": " << f.what << "\n";
        status = kProblems;
    }
    for (const CannotUnpack& c : plan.cannot_unpack) {
        out << "CANNOT UNPACK: " << c.module << ": " << c.reason << "; " << c.change
            << " (its stored data is written as .lh5)\n";
        if (status == kOk) status = kVerifyCannotUnpack;
    }
    return status;
}

}  // namespace

int RunExtract(const inspect::Command& command, std::ostream& out) {
    auto image = LoadImage(command.image, out);
    if (!image) return kUnusable;
    return Extract(*image, ReadImage(*image, command.options), command.argument, out);
}

}  // namespace fwforge::rebuild
