// fwforge-lzh: compresses a file exactly as a module is compressed into a ROM image
// (CompressedDataHeader, lh5 bit stream, closing 0x00), or decodes such data.
//   fwforge-lzh c INPUT OUTPUT
//   fwforge-lzh d INPUT OUTPUT

#include <cstdint>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/lzh_format.h"
#include "compress/module_compressor.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace {

constexpr const char* kUsage =
    "Usage - fwforge-lzh c INPUT OUTPUT   compress INPUT as a module\n"
    "        fwforge-lzh d INPUT OUTPUT   decode compressed module data\n";

void Fail(const std::string& message) {
    std::fprintf(stderr, "fwforge-lzh: %s\n", message.c_str());
}

std::optional<std::vector<std::uint8_t>> ReadWholeFile(const std::string& name) {
    auto file = fwforge::platform::InputFile::Open(name);
    if (!file) {
        Fail(fwforge::StrFormat("cannot open input file %s", name.c_str()));
        return std::nullopt;
    }
    const auto size = file->Size();
    // Sizes are 32-bit in the compressed data header.
    if (!size || *size > std::uint32_t(-1) - fwforge::kCompressedOverhead) {
        Fail(fwforge::StrFormat("cannot read input file %s: size unknown or above 4 GB",
                                name.c_str()));
        return std::nullopt;
    }
    std::vector<std::uint8_t> data(static_cast<std::size_t>(*size));
    if (!file->ReadExactly(data)) {
        Fail(fwforge::StrFormat("cannot read input file %s", name.c_str()));
        return std::nullopt;
    }
    return data;
}

bool WriteWholeFile(const std::string& name, std::span<const std::uint8_t> data) {
    auto file = fwforge::platform::OutputFile::Create(name);
    if (!file || !file->Write(data)) {
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
    if (argc != 4 || (std::string_view(argv[1]) != "c" && std::string_view(argv[1]) != "d")) {
        std::fputs(kUsage, stderr);
        return 1;
    }
    try {
        if (std::string_view(argv[1]) == "c") return Compress(argv[2], argv[3]);
        return Decode(argv[2], argv[3]);
    } catch (const fwforge::lzh::OutOfMemory& e) {
        // No line break before or after it, as in the main program.
        std::fputs(e.what(), stderr);
        return 1;
    } catch (const std::bad_alloc&) {
        Fail(fwforge::StrFormat("out of memory while processing %s", argv[2]));
        return 1;
    }
}
