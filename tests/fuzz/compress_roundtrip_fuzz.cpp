// Fuzzes the compressor: any input is compressed with one long-lived encoder (so the
// window carries over between inputs, as in a build), decoded with our decoder and
// compared, unless the output bound cut the stream off.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "compress/lzh_decoder.h"
#include "compress/module_compressor.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fwforge::lzh::Encoder encoder;
    std::vector<std::uint8_t> packed(size + 9);
    const auto result = encoder.CompressModule(std::span(data, size), packed);
    if (result.total > size + 9 || result.consumed > size) std::abort();
    if (result.stopped) {
        // The output bound: never more stream bytes than input bytes consumed.
        if (result.total > result.consumed + 9) std::abort();
        return 0;
    }
    if (result.consumed != size) std::abort();
    std::string error;
    const auto decoded = fwforge::lzh::DecodeCompressedData(
        std::span<const std::uint8_t>(packed.data(), result.total), &error);
    if (!decoded || *decoded != std::vector<std::uint8_t>(data, data + size)) std::abort();
    return 0;
}
