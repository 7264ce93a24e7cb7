#include "compress/module_compressor.h"

namespace fwforge::lzh {

struct Encoder::State {};

Encoder::Encoder() : state_(std::make_unique<State>()) {}
Encoder::~Encoder() = default;

CompressResult Encoder::CompressModule(std::span<const std::uint8_t>, std::span<std::uint8_t>) {
    return {};
}

}  // namespace fwforge::lzh
