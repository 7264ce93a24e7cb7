#pragma once
// A module's file, read for sizing and again for insertion, and its compression through
// the build's one encoder. The encoder's window carries over from one call to the next,
// so every module is compressed exactly where the build calls for it: once when it is
// sized and once more when it is inserted.

#include <cstdint>
#include <string>
#include <vector>

#include "context/build_context.h"
#include "format/compressed_data_header.h"

namespace fwforge {

// Compressed data carries a frame (header and closing 0x00) around its stream, so a
// compression result can be up to this much longer than its input.
inline constexpr std::uint32_t kCompressionSlack = kCompressedOverhead;

// Opens the module file; fatal "Cannot open module file: %s" when that fails. Returns
// the file's size, which must fit a 32-bit image.
std::uint32_t MeasureModuleFile(BuildContext& ctx, const std::string& file_name);

// The module file read whole into a buffer of its size + kCompressionSlack bytes, the
// rest 0xFF. Fatal "Cannot open module file: %s", "Out of memory", "Cannot read module
// file".
std::vector<std::uint8_t> ReadModuleFile(BuildContext& ctx, const std::string& file_name,
                                         std::uint32_t& file_size);

// Whether a module with these attributes is compressed by the build (neither stored as
// it is nor already compressed in its file).
bool IsCompressedByBuild(std::uint8_t attributes, std::uint8_t compression_flags);

// Compresses the first `file_size` bytes of `buffer` over its own start, as the module
// buffer receives them; returns the encoder's result.
lzh::CompressResult CompressInPlace(BuildContext& ctx, std::vector<std::uint8_t>& buffer,
                                    std::uint32_t file_size);

}  // namespace fwforge
