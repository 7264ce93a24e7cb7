// Fuzzes our lh5 decoder on arbitrary bytes: it must reject or decode, never read or
// write out of bounds, and a stream it accepts must hold exactly the stated size.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "compress/lzh_decoder.h"
#include "platform/byte_order.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string error;
    const auto decoded = fwforge::lzh::DecodeCompressedData(std::span(data, size), &error);
    if (decoded && (size < 8 || decoded->size() != fwforge::load_le32(data + 4))) std::abort();
    if (!decoded && error.empty()) std::abort();
    return 0;
}
