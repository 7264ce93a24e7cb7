#include "edit/replace_cli.h"

#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "edit/replace.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

constexpr int kWritten = 0;
constexpr int kRefused = 1;
constexpr int kUnusable = 2;

const char* const kUsage =
    "Usage - fwforge-inspect replace IMAGE OUT --module SELECTOR --file FILE [--as-is]\n"
    "  SELECTOR  the module's number in `list` (3, ebb:1), or id=XX, or for an\n"
    "            add-on ROM pci=VVVV:DDDD\n"
    "  FILE      the module's new file, compressed as the build compresses it when the\n"
    "            module is stored compressed; --as-is: FILE holds the stored data already\n"
    "options: --16 or --32 (link form), --bbsize HEX, --help\n"
    "IMAGE is never written; OUT is written only when every check passes\n";

struct CommandLine {
    std::string image, out, selector, file;
    bool as_is = false;
    bool help = false;
    inspect::InspectOptions options;
};

// The text after `replace`; an error text when it is not usable.
std::string Parse(int argc, const char* const* argv, CommandLine& cl) {
    std::vector<std::string> positional;
    for (int i = 2; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help") {
            cl.help = true;
            return {};
        } else if (arg == "--as-is") {
            cl.as_is = true;
        } else if (arg == "--16") {
            cl.options.link_form = inspect::LinkForm::Bits16;
        } else if (arg == "--32") {
            cl.options.link_form = inspect::LinkForm::Bits32;
        } else if (arg == "--module" || arg == "--file" || arg == "--bbsize") {
            if (i + 1 >= argc) return StrFormat("%s needs a value", argv[i]);
            const std::string_view value = argv[++i];
            if (arg == "--module") {
                cl.selector = value;
            } else if (arg == "--file") {
                cl.file = value;
            } else {
                std::string_view digits = value;
                if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
                std::uint32_t size = 0;
                const auto [end, error] =
                    std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
                if (digits.empty() || error != std::errc() || end != digits.data() + digits.size())
                    return StrFormat("--bbsize: \"%s\" is not a hex number", argv[i]);
                cl.options.boot_block_size = size;
            }
        } else if (arg.starts_with("--")) {
            return StrFormat("unknown option %s", argv[i]);
        } else {
            positional.emplace_back(arg);
        }
    }
    if (positional.size() != 2) return "replace needs IMAGE and OUT";
    cl.image = positional[0];
    cl.out = positional[1];
    if (cl.selector.empty()) return "replace needs --module";
    if (cl.file.empty()) return "replace needs --file";
    return {};
}

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
    auto file = platform::InputFile::Open(name);
    auto size = file ? file->Size() : std::nullopt;
    std::vector<std::uint8_t> bytes;
    if (size && *size <= 0xFFFFFFFFu) bytes.resize(static_cast<std::size_t>(*size));
    if (!size || *size > 0xFFFFFFFFu || !file->ReadExactly(bytes)) {
        out << "fwforge-inspect replace: cannot read " << what << " " << name << "\n";
        return std::nullopt;
    }
    return bytes;
}

}  // namespace

int RunReplace(int argc, const char* const* argv, std::ostream& out) {
    CommandLine cl;
    if (const std::string error = Parse(argc, argv, cl); !error.empty()) {
        out << "fwforge-inspect replace: " << error << "\n" << kUsage;
        return kUnusable;
    }
    if (cl.help) {
        out << kUsage;
        return kWritten;
    }
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
    auto written = platform::OutputFile::Create(cl.out);
    if (!written || !written->Write(outcome.image)) {
        // Only a file this run created goes again; OUT may name a folder, say.
        if (written) {
            written.reset();
            std::error_code ignored;
            std::filesystem::remove(platform::ToHostSeparators(cl.out), ignored);
        }
        out << "fwforge-inspect replace: cannot write " << cl.out << "\n";
        return kUnusable;
    }
    for (const std::string& line : outcome.report) out << "  " << line << "\n";
    out << "replace: " << cl.out << " written\n";
    return kWritten;
}

}  // namespace fwforge::edit
