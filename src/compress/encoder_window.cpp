#include "compress/encoder_window.h"

#include <algorithm>
#include <cstring>

namespace fwforge::lzh {

namespace {
constexpr std::size_t kFirstFill = kWindowSize + kMaxMatch;  // 8448
}  // namespace

WindowRange StaleReadRange(std::size_t input_size) {
    if (input_size >= kFirstFill) return {kWindowBufferSize, kWindowBufferSize};
    const auto begin = static_cast<unsigned>(kFirstPosition + input_size);
    return {begin, std::min(begin + kMaxMatch, kWindowBufferSize)};
}

std::uint32_t FullRunSlides(std::size_t input_size) {
    return static_cast<std::uint32_t>(input_size / kWindowSize);
}

void ReplayRun(std::span<std::uint8_t> window, std::span<const std::uint8_t> input,
               std::uint32_t slides) {
    std::uint8_t* text = window.data();
    std::size_t read = std::min(input.size(), kFirstFill);
    if (read != 0) std::memcpy(text + kFirstPosition, input.data(), read);
    for (std::uint32_t s = 0; s < slides; ++s) {
        std::memmove(text, text + kWindowSize, kWindowSize + kMaxMatch);
        const std::size_t got = std::min<std::size_t>(input.size() - read, kWindowSize);
        if (got != 0) std::memcpy(text + kWindowSize + kMaxMatch, input.data() + read, got);
        read += got;
    }
}

}  // namespace fwforge::lzh
