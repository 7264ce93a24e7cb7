#include "inspect/inspect_cli.h"

#include <filesystem>
#include <string>
#include <vector>

#include "check/problems.h"
#include "check/verify.h"
#include "image/image_model.h"
#include "image/image_reader.h"
#include "platform/file_io.h"
#include "platform/file_system.h"
#include "platform/text_format.h"
#include "present/diff.h"
#include "present/map.h"
#include "present/report.h"

namespace fwforge::inspect {

Result<std::vector<std::uint8_t>> LoadImage(const std::string& name) {
    platform::WholeFile file = platform::ReadWholeFile(name);
    switch (file.failure) {
        case platform::WholeFile::Failure::None:
            return std::move(file.bytes);
        case platform::WholeFile::Failure::Open:
            return Failure{FailureKind::Unreadable, "fwforge-inspect: cannot open image " + name};
        case platform::WholeFile::Failure::Size:
            return Failure{FailureKind::Unreadable,
                           "fwforge-inspect: cannot determine the size of " + name};
        case platform::WholeFile::Failure::Read:
            break;
    }
    return Failure{FailureKind::Unreadable, "fwforge-inspect: cannot read image " + name};
}

Result<bool> WriteFile(const std::string& name, std::span<const std::uint8_t> bytes) {
    if (!platform::WriteWholeFile(platform::Disk(), name, bytes)) {
        return Failure{FailureKind::Unwritable, "fwforge-inspect: cannot write " + name};
    }
    return true;
}

ExitStatus Fail(const Failure& failure, std::ostream& out) {
    out << failure.message << "\n";
    return failure.Status();
}

namespace {

// What list and map end with: the image cannot be told apart without its main BIOS
// header; otherwise whether it has problems.
ExitStatus ReadingStatus(const ImageModel& model) {
    return !model.main               ? ExitStatus::Unusable
           : model.problems.empty() ? ExitStatus::Ok
                                    : ExitStatus::Problems;
}

}  // namespace

ExitStatus RunCommand(const Command& cl, std::ostream& out) {
    const auto image = LoadImage(cl.image);
    if (!image) return Fail(image.Error(), out);
    const ImageModel model = ReadImage(*image, cl.options);

    if (cl.command == "list") {
        out << (cl.json ? ListJson(*image, model) : ListText(*image, model));
        return ReadingStatus(model);
    }
    if (cl.command == "verify") {
        // An image without a main BIOS header is a damaged one here: the file was read.
        const VerifyReport report = Verify(*image, model);
        out << (cl.json ? VerifyJson(report) : VerifyText(report));
        return report.Status();
    }
    if (cl.command == "diff") {
        const auto other = LoadImage(cl.argument);
        if (!other) return Fail(other.Error(), out);
        const ImageModel model_b = ReadImage(*other, cl.options);
        out << ProblemLines(model.problems, cl.image + ": ")
            << ProblemLines(model_b.problems, cl.argument + ": ");
        if (!model.main || !model_b.main) return ExitStatus::Unusable;
        const auto differences = DiffImages(*image, model, *other, model_b);
        out << DiffText(differences);
        return differences.empty() ? ExitStatus::Ok : ExitStatus::Problems;
    }
    if (cl.command == "map") {
        if (cl.html.empty()) {
            out << MapText(*image, model);
        } else {
            const std::string html = MapHtml(*image, model, "ROM image map: " + cl.image);
            const auto written = WriteFile(
                cl.html,
                std::span(reinterpret_cast<const std::uint8_t*>(html.data()), html.size()));
            if (!written) return Fail(written.Error(), out);
            out << "map: " << cl.html << " written\n" << ProblemLines(model.problems);
        }
        return ReadingStatus(model);
    }
    out << "fwforge-inspect: " << cl.command << " is not a command\n";
    return ExitStatus::Unusable;
}

}  // namespace fwforge::inspect
