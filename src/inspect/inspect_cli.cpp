#include "inspect/inspect_cli.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "inspect/diff.h"
#include "inspect/image_model.h"
#include "inspect/map.h"
#include "inspect/report.h"
#include "inspect/verify.h"
#include "platform/file_io.h"
#include "platform/file_system.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

constexpr int kOk = kStatusOk;
constexpr int kProblems = kStatusProblems;
constexpr int kUnusable = kStatusUnusable;


}  // namespace

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
            if (!platform::WriteWholeFile(
                    platform::Disk(), cl.html,
                    std::span(reinterpret_cast<const std::uint8_t*>(html.data()), html.size()))) {
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
