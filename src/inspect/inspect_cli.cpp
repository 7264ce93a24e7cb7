#include "inspect/inspect_cli.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "check/verify.h"
#include "image/image_model.h"
#include "image/image_reader.h"
#include "inspect/extract.h"
#include "platform/file_io.h"
#include "platform/text_format.h"
#include "present/diff.h"
#include "present/map.h"
#include "present/report.h"

namespace fwforge::inspect {
namespace {

constexpr int kOk = 0;
constexpr int kProblems = 1;
constexpr int kUnusable = 2;

std::optional<std::vector<std::uint8_t>> LoadImage(const std::string& name, std::ostream& out) {
    platform::WholeFile file = platform::ReadWholeFile(name);
    switch (file.failure) {
        case platform::WholeFile::Failure::None:
            return std::move(file.bytes);
        case platform::WholeFile::Failure::Open:
            out << "fwforge-inspect: cannot open image " << name << "\n";
            break;
        case platform::WholeFile::Failure::Size:
            out << "fwforge-inspect: cannot determine the size of " << name << "\n";
            break;
        case platform::WholeFile::Failure::Read:
            out << "fwforge-inspect: cannot read image " << name << "\n";
            break;
    }
    return std::nullopt;
}

int RunExtract(std::span<const std::uint8_t> image, const ImageModel& model, const std::string& dir,
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
    const ExtractPlan plan = PlanExtract(image, model);
    int status = kOk;
    for (const ExtractedFile& f : plan.files) {
        const std::string path = platform::ComposeOutputName(dir, f.name);
        auto file = platform::OutputFile::Create(path);
        if (!file || !file->Write(f.bytes)) {
            out << "fwforge-inspect: cannot write " << path << "\n";
            return kUnusable;
        }
        out << StrFormat("  %-28s %8zx bytes\n", f.name.c_str(), f.bytes.size());
    }
    out << StrFormat("extract: %zu files written to %s\n", plan.files.size(), dir.c_str());
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

int RunCommand(const Command& cl, std::ostream& out) {
    auto image = LoadImage(cl.image, out);
    if (!image) return kUnusable;
    const ImageModel model = ReadImage(*image, cl.options);
    // Without a main BIOS header nothing of the image can be told apart.
    const bool unusable = !model.main;

    if (cl.command == "list") {
        out << (cl.json ? ListJson(*image, model) : ListText(*image, model));
        return unusable ? kUnusable : model.problems.empty() ? kOk : kProblems;
    }
    if (cl.command == "verify") {
        // An image without a main BIOS header is a damaged one here: the file was read.
        const VerifyReport report = Verify(*image, model);
        out << (cl.json ? VerifyJson(report) : VerifyText(report));
        return report.Status();
    }
    if (cl.command == "extract") return RunExtract(*image, model, cl.argument, out);
    if (cl.command == "diff") {
        auto other = LoadImage(cl.argument, out);
        if (!other) return kUnusable;
        const ImageModel model_b = ReadImage(*other, cl.options);
        for (const Finding& f : model.problems)
            out << "PROBLEM: " << cl.image << ": " << f.where << ": " << f.what << "\n";
        for (const Finding& f : model_b.problems)
            out << "PROBLEM: " << cl.argument << ": " << f.where << ": " << f.what << "\n";
        if (unusable || !model_b.main) return kUnusable;
        const auto differences = DiffImages(*image, model, *other, model_b);
        out << DiffText(differences);
        return differences.empty() ? kOk : kProblems;
    }
    if (cl.command == "map") {
        if (cl.html.empty()) {
            out << MapText(*image, model);
        } else {
            const std::string html = MapHtml(*image, model, "ROM image map: " + cl.image);
            auto file = platform::OutputFile::Create(cl.html);
            if (!file || !file->Write(std::span(reinterpret_cast<const std::uint8_t*>(html.data()),
                                                html.size()))) {
                out << "fwforge-inspect: cannot write " << cl.html << "\n";
                return kUnusable;
            }
            out << "map: " << cl.html << " written\n";
            for (const Finding& f : model.problems) {
                out << "PROBLEM: " << f.where << ": " << f.what << "\n";
            }
        }
        return unusable ? kUnusable : model.problems.empty() ? kOk : kProblems;
    }
    out << "fwforge-inspect: " << cl.command << " is not a command\n";
    return kUnusable;
}

}  // namespace fwforge::inspect
