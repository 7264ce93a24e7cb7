// fwforge-lzh: compresses a file exactly as a module is compressed into a ROM image
// (CompressedDataHeader, lh5 bit stream, closing 0x00), or decodes such data.
//   fwforge-lzh c INPUT OUTPUT
//   fwforge-lzh d INPUT OUTPUT
//   fwforge-lzh --help | --version

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/lzh_format.h"
#include "compress/module_compressor.h"
#include "platform/file_io.h"
#include "platform/file_system.h"
#include "platform/text_format.h"

namespace {

void Fail(const std::string& message) {
    std::fprintf(stderr, "fwforge-lzh: %s\n", message.c_str());
}

std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::string& name) {
    using Failure = fwforge::platform::WholeFile::Failure;
    // Sizes are 32-bit in the compressed data header.
    fwforge::platform::WholeFile file =
        fwforge::platform::ReadWholeFile(name, std::uint32_t(-1) - fwforge::kCompressedOverhead);
    if (file.failure == Failure::None) return std::move(file.bytes);
    Fail(fwforge::StrFormat(file.failure == Failure::Open ? "cannot open input file %s"
                            : file.failure == Failure::Size
                                ? "cannot read input file %s: size unknown or above 4 GB"
                                : "cannot read input file %s",
                            name.c_str()));
    return std::nullopt;
}

bool WriteWholeFile(const std::string& name, std::span<const std::uint8_t> data) {
    if (!fwforge::platform::WriteWholeFile(fwforge::platform::Disk(), name, data)) {
        Fail(fwforge::StrFormat("cannot write output file %s", name.c_str()));
        return false;
    }
    return true;
}

int Compress(const std::string& input, const std::string& output) {
    const auto data = ReadWholeFile(input);
    if (!data) return 1;
    std::vector<std::uint8_t> result(data->size() + fwforge::kCompressedOverhead);
    // A fresh encoder: its window starts out zero, so the output depends on the input only.
    fwforge::lzh::Encoder encoder;
    const auto compressed = encoder.CompressModule(*data, result);
    result.resize(compressed.total);
    return WriteWholeFile(output, result) ? 0 : 1;
}

int Decode(const std::string& input, const std::string& output) {
    const auto data = ReadWholeFile(input);
    if (!data) return 1;
    std::string error;
    const auto decoded = fwforge::lzh::DecodeCompressedData(*data, &error);
    if (!decoded) {
        Fail(fwforge::StrFormat("%s is not valid compressed module data: %s", input.c_str(),
                                error.c_str()));
        return 1;
    }
    return WriteWholeFile(output, *decoded) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Compresses a file exactly as a module is compressed into a ROM image\n"
        "(8-byte header, lh5 bit stream, closing 0x00), or decodes such data.",
        "fwforge-lzh"};
    app.set_version_flag("--version", "fwforge-lzh " FWFORGE_VERSION);
    // At most one command here, and words left over are collected: a wrong or missing
    // command and stray words are reported below, in the order they were given.
    app.require_subcommand(0, 1);
    app.allow_extras();
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "fwforge-lzh: " + std::string(e.what()) +
               "\nRun with --help for more information.\n";
    });
    std::string input, output;
    for (const auto& [name, about] :
         {std::pair{"c", "c INPUT OUTPUT: compress INPUT as a module"},
          std::pair{"d", "d INPUT OUTPUT: decode compressed module data"}}) {
        CLI::App* command = app.add_subcommand(name, about);
        command->add_option("INPUT", input, "file to read")->required();
        command->add_option("OUTPUT", output, "file to create")->required();
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and version are answers (status 0); every other command-line mistake
        // keeps the status that scripts already test for: 1.
        const int status = app.exit(e);
        return status == 0 ? 0 : 1;
    }
    if (const auto extra = app.remaining(true); !extra.empty()) {
        const auto option = std::find_if(extra.begin(), extra.end(),
                                         [](const std::string& w) { return w.starts_with('-'); });
        std::string words;
        for (const auto& word : extra) words += (words.empty() ? "" : " ") + word;
        Fail(option != extra.end() ? "unknown option: " + *option
                                   : "unexpected arguments: " + words);
        std::fputs("Run with --help for more information.\n", stderr);
        return 1;
    }
    if (app.get_subcommands().empty()) {
        std::fputs(
            "fwforge-lzh: a command is required: c or d\n"
            "Run with --help for more information.\n",
            stderr);
        return 1;
    }
    const bool compress = app.got_subcommand("c");
    try {
        return compress ? Compress(input, output) : Decode(input, output);
    } catch (const fwforge::lzh::OutOfMemory& e) {
        // No line break before or after it, as in the main program.
        std::fputs(e.what(), stderr);
        return 1;
    } catch (const std::bad_alloc&) {
        Fail(fwforge::StrFormat("out of memory while processing %s", input.c_str()));
        return 1;
    }
}
