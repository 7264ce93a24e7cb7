#include "inspect/inspect_cli.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/diff.h"
#include "inspect/extract.h"
#include "inspect/image_model.h"
#include "inspect/map.h"
#include "inspect/report.h"
#include "inspect/verify.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

constexpr int kOk = 0;
constexpr int kProblems = 1;
constexpr int kUnusable = 2;

const char* const kUsage =
    "Usage - fwforge-inspect COMMAND IMAGE [options]\n"
    "  list                 regions and modules of the image\n"
    "  verify               check every checksum, link, overlap and compressed module:\n"
    "                       exit 0 intact, 1 damaged, 3 intact as built but some\n"
    "                       compressed modules cannot be unpacked\n"
    "  extract DIR          write every module and DIR/rebuild.scr (exit 3 as verify)\n"
    "  map [--html FILE]    map of the image by address (HTML page with --html)\n"
    "  diff IMAGE2          module-by-module differences to a second image\n"
    "  replace OUT --module SELECTOR --file FILE [--as-is]\n"
    "                       OUT: the image with one module's data replaced (replace --help)\n"
    "options: --json (list, verify), --16 or --32 (link form), --bbsize HEX, --help\n"
    "exit status 0 when all is in order, 1 for problems (for diff: differences), 2 for a\n"
    "bad command line or a file that cannot be read, 3 as under verify\n";

struct CommandLine {
    std::string command;
    std::string image;
    std::string argument;  // DIR of extract, IMAGE2 of diff
    std::string html;
    bool json = false;
    bool help = false;
    InspectOptions options;
};

std::optional<std::uint32_t> ParseHex(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    if (text.empty() || text.size() > 8) return std::nullopt;
    std::uint32_t value = 0;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return std::nullopt;
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    return value;
}

// Parses the command line; an error text when it is not usable.
std::string Parse(int argc, const char* const* argv, CommandLine& cl) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help") {
            cl.help = true;
            return {};
        } else if (arg == "--json") {
            cl.json = true;
        } else if (arg == "--16") {
            cl.options.link_form = LinkForm::Bits16;
        } else if (arg == "--32") {
            cl.options.link_form = LinkForm::Bits32;
        } else if (arg == "--bbsize" || arg == "--html") {
            if (i + 1 >= argc) return StrFormat("%s needs a value", argv[i]);
            if (arg == "--html") {
                cl.html = argv[++i];
            } else {
                auto value = ParseHex(argv[++i]);
                if (!value) return StrFormat("--bbsize: \"%s\" is not a hex number", argv[i]);
                cl.options.boot_block_size = *value;
            }
        } else if (arg.starts_with("--")) {
            return StrFormat("unknown option %s", argv[i]);
        } else {
            positional.emplace_back(arg);
        }
    }
    if (positional.size() < 2) return "a command and an image are needed";
    cl.command = positional[0];
    cl.image = positional[1];
    const bool needs_argument = cl.command == "extract" || cl.command == "diff";
    if (cl.command != "list" && cl.command != "verify" && cl.command != "map" && !needs_argument) {
        return "unknown command " + cl.command;
    }
    if (needs_argument) {
        if (positional.size() != 3)
            return cl.command + " needs " + (cl.command == "diff" ? "IMAGE2" : "DIR");
        cl.argument = positional[2];
    } else if (positional.size() != 2) {
        return "too many arguments";
    }
    if (cl.json && cl.command != "list" && cl.command != "verify") {
        return "--json is for list and verify";
    }
    if (!cl.html.empty() && cl.command != "map") return "--html is for map";
    return {};
}

std::optional<std::vector<std::uint8_t>> LoadImage(const std::string& name, std::ostream& out) {
    auto file = platform::InputFile::Open(name);
    if (!file) {
        out << "fwforge-inspect: cannot open image " << name << "\n";
        return std::nullopt;
    }
    auto size = file->Size();
    if (!size || *size > 0xFFFFFFFFu) {
        out << "fwforge-inspect: cannot determine the size of " << name << "\n";
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(*size));
    if (!file->ReadExactly(bytes)) {
        out << "fwforge-inspect: cannot read image " << name << "\n";
        return std::nullopt;
    }
    return bytes;
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

int RunInspect(int argc, const char* const* argv, std::ostream& out) {
    CommandLine cl;
    if (const std::string error = Parse(argc, argv, cl); !error.empty()) {
        out << "fwforge-inspect: " << error << "\n" << kUsage;
        return kUnusable;
    }
    if (cl.help) {
        out << kUsage;
        return kOk;
    }
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
    out << "fwforge-inspect: " << cl.command << " is not available\n";
    return kUnusable;
}

}  // namespace fwforge::inspect
