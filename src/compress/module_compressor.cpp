#include "compress/module_compressor.h"

#include <cstring>
#include <new>
#include <stdexcept>

#include "compress/lzh_encoder.h"
#include "compress/lzh_format.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::lzh {
namespace {

// The module's bytes as the encoder's byte source.
class MemoryInputStream : public ByteSource {
  public:
    explicit MemoryInputStream(std::span<const std::uint8_t> buffer) : buffer_(buffer) {}

    std::uint32_t ReadBytes(std::uint8_t* place, std::uint32_t count) override {
        const std::size_t left = buffer_.size() - position_;
        const std::size_t n = count < left ? count : left;
        if (n != 0) std::memcpy(place, buffer_.data() + position_, n);
        position_ += n;
        return static_cast<std::uint32_t>(n);
    }

  private:
    std::span<const std::uint8_t> buffer_;
    std::size_t position_ = 0;
};

void StoreHeader(std::uint8_t* data, std::uint32_t total, std::uint32_t original) {
    store_le32(data + compressed_data_header::TotalSize.offset, total);
    store_le32(data + compressed_data_header::OriginalSize.offset, original);
}

}  // namespace

struct Encoder::State {
    explicit State(EncoderLimits limits) : encoder(limits) {}
    LzhEncoder encoder;
};

Encoder::Encoder() : Encoder(EncoderLimits{}) {}
Encoder::Encoder(EncoderLimits limits) {
    // The block coder's tables live in the encoder object: failing to get them is the
    // encoder running out of memory like failing to get its window.
    try {
        state_ = std::make_unique<State>(limits);
    } catch (const std::bad_alloc&) {
        throw OutOfMemory();
    }
}
Encoder::~Encoder() = default;

std::size_t Encoder::TokenBufferSize() const {
    return state_->encoder.TokenBufferSize();
}

std::span<std::uint8_t> Encoder::Window() {
    return {state_->encoder.Window(), kWindowBufferSize};
}

CompressResult Encoder::CompressModule(std::span<const std::uint8_t> source,
                                       std::span<std::uint8_t> destination) {
    // The bit stream never outgrows the input, so size + 9 is the most a run writes.
    if (source.size() > std::uint32_t(-1) - kCompressedOverhead) {
        throw std::invalid_argument(
            StrFormat("CompressModule: input of %zu bytes is too large for the 32-bit size fields",
                      source.size()));
    }
    if (destination.size() < source.size() + kCompressedOverhead) {
        throw std::invalid_argument(
            StrFormat("CompressModule: destination holds %zu bytes, a %zu-byte input needs %zu",
                      destination.size(), source.size(), source.size() + kCompressedOverhead));
    }
    // Placeholder header; the real counts are known only after the run.
    StoreHeader(destination.data(), 0, 0);
    MemoryInputStream input(source);
    LzhEncoder& encoder = state_->encoder;
    encoder.EncodeStream(input, destination.data() + compressed_data_header::kSize);

    CompressResult result;
    result.total = encoder.Written() + kCompressedOverhead;
    result.consumed = encoder.Consumed();
    result.stopped = encoder.Stopped();
    result.slides = encoder.Slides();
    destination[compressed_data_header::kSize + encoder.Written()] = 0x00;
    StoreHeader(destination.data(), result.total, result.consumed);
    return result;
}

}  // namespace fwforge::lzh
