#include "layout/module_data.h"

#include <chrono>
#include <new>

#include "format/module_header.h"
#include "platform/file_io.h"
#include "platform/text_format.h"
#include "script/build_description.h"

namespace fwforge {
namespace {

std::uint32_t CheckedSize(BuildContext& ctx, const std::string& file_name,
                          const platform::ReadableFile& file) {
    const std::optional<std::uint64_t> size = file.Size();
    if (!size) ctx.diag.Fatal("Cannot read module file");
    // The image, and with it any module, is addressed with 32 bits.
    if (*size > 0xFFFFFFFFu - kCompressionSlack) {
        ctx.diag.Fatal(StrFormat("Module file %s is too large for a ROM image: %llx bytes",
                                 file_name.c_str(), static_cast<unsigned long long>(*size)));
    }
    return static_cast<std::uint32_t>(*size);
}

}  // namespace

std::uint32_t MeasureModuleFile(BuildContext& ctx, const std::string& file_name) {
    auto file = ctx.files.Open(file_name);
    if (!file) ctx.diag.Fatal(StrFormat("Cannot open module file: %s", file_name.c_str()));
    return CheckedSize(ctx, file_name, *file);
}

std::vector<std::uint8_t> ReadModuleFile(BuildContext& ctx, const std::string& file_name,
                                         std::uint32_t& file_size) {
    auto file = ctx.files.Open(file_name);
    if (!file) ctx.diag.Fatal(StrFormat("Cannot open module file: %s", file_name.c_str()));
    file_size = CheckedSize(ctx, file_name, *file);
    std::vector<std::uint8_t> buffer;
    try {
        buffer.assign(std::size_t{file_size} + kCompressionSlack, 0xFF);
    } catch (const std::bad_alloc&) {
        ctx.diag.Fatal("Out of memory");
    }
    if (!file->ReadExactly({buffer.data(), file_size})) ctx.diag.Fatal("Cannot read module file");
    return buffer;
}

bool IsCompressedByBuild(std::uint8_t attributes, std::uint8_t compression_flags) {
    return !(attributes & module_attr::NotCompressed) &&
           !(compression_flags & compression_flag::AlreadyCompressed);
}

lzh::CompressResult CompressInPlace(BuildContext& ctx, std::vector<std::uint8_t>& buffer,
                                    std::uint32_t file_size) {
    std::vector<std::uint8_t> source;
    try {
        source.assign(buffer.begin(), buffer.begin() + file_size);
    } catch (const std::bad_alloc&) {
        ctx.diag.Fatal("Out of memory");
    }
    const auto start = std::chrono::steady_clock::now();
    const lzh::CompressResult result = ctx.Compressor().CompressModule(source, buffer);
    ctx.layout.CompressionTime += std::chrono::steady_clock::now() - start;
    return result;
}

}  // namespace fwforge
