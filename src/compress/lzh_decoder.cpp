#include "compress/lzh_decoder.h"

#include <algorithm>
#include <array>
#include <new>

#include "compress/lzh_format.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::lzh {
namespace {

// Output is reserved up front only up to this size; a forged original size must not
// turn into one huge allocation before the stream has proven anything.
constexpr std::size_t kReserveLimit = std::size_t{1} << 24;

struct DecodeError {
    std::string message;
};

class BitReader {
  public:
    explicit BitReader(std::span<const std::uint8_t> stream) : stream_(stream) {}

    // n <= 16 bits, most significant first.
    unsigned Read(unsigned n, const char* what) {
        if (n > BitsLeft()) {
            throw DecodeError{StrFormat("the bit stream (%zu bytes) ends while reading %s",
                                        stream_.size(), what)};
        }
        unsigned value = 0;
        for (unsigned i = 0; i < n; ++i) value = (value << 1) | NextBit();
        return value;
    }
    unsigned NextBit() {
        const unsigned bit = (stream_[bit_pos_ >> 3] >> (7 - (bit_pos_ & 7))) & 1u;
        ++bit_pos_;
        return bit;
    }
    std::size_t BitsLeft() const { return stream_.size() * 8 - bit_pos_; }
    std::size_t BitPosition() const { return bit_pos_; }
    std::size_t Size() const { return stream_.size(); }

  private:
    std::span<const std::uint8_t> stream_;
    std::size_t bit_pos_ = 0;
};

// A canonical Huffman code as the decoder walks it: codes of one length are
// consecutive and ordered by symbol.
class DecodeTable {
  public:
    void SetSingle(unsigned symbol) { single_ = static_cast<int>(symbol); }

    // Every code the encoder sends with two or more symbols is complete, so anything
    // else is a damaged table.
    void Build(std::span<const std::uint8_t> lengths, const char* name) {
        single_ = -1;
        counts_.fill(0);
        for (std::uint8_t len : lengths) ++counts_[len];
        counts_[0] = 0;
        std::uint32_t kraft = 0;
        for (unsigned d = 1; d <= kMaxCodeBits; ++d) kraft += counts_[d] << (kMaxCodeBits - d);
        if (kraft != (1u << kMaxCodeBits)) {
            throw DecodeError{
                StrFormat("the %s code lengths do not form a complete code "
                          "(Kraft sum %u/65536)",
                          name, kraft)};
        }
        std::array<unsigned, kMaxCodeBits + 1> offset{};
        for (unsigned d = 1; d < kMaxCodeBits; ++d) offset[d + 1] = offset[d] + counts_[d];
        symbols_.resize(lengths.size());
        for (unsigned s = 0; s < lengths.size(); ++s) {
            if (lengths[s] != 0) symbols_[offset[lengths[s]]++] = static_cast<std::uint16_t>(s);
        }
    }

    unsigned Decode(BitReader& in, const char* what) const {
        if (single_ >= 0) return static_cast<unsigned>(single_);
        unsigned code = 0;
        unsigned first = 0;
        unsigned index = 0;
        for (unsigned d = 1; d <= kMaxCodeBits; ++d) {
            code |= in.Read(1, what);
            const unsigned count = counts_[d];
            if (code - first < count) return symbols_[index + code - first];
            index += count;
            first = (first + count) << 1;
            code <<= 1;
        }
        // Unreachable for a complete code, kept as a guard.
        throw DecodeError{StrFormat("no code matches while reading %s", what)};
    }

  private:
    int single_ = -1;
    std::array<unsigned, kMaxCodeBits + 1> counts_{};
    std::vector<std::uint16_t> symbols_;
};

class Lh5Decoder {
  public:
    Lh5Decoder(std::span<const std::uint8_t> stream, std::size_t original_size, Lh5Trace* trace)
        : in_(stream), original_size_(original_size), trace_(trace) {}

    std::vector<std::uint8_t> Run() {
        std::vector<std::uint8_t> out;
        out.reserve(std::min(original_size_, kReserveLimit));
        while (out.size() < original_size_) {
            ++block_;
            const unsigned tokens = in_.Read(kTokenCountBits, "a block's token count");
            if (tokens == 0) throw DecodeError{StrFormat("block %u holds no tokens", block_)};
            if (trace_ != nullptr) trace_->block_token_counts.push_back(tokens);
            ReadShortLengths(kCodeLenCountBits, kNumCodeLen, true, code_len_, "code-length");
            ReadLitLenLengths();
            ReadShortLengths(kDistCountBits, kNumDistBits, false, dist_, "distance");
            for (unsigned t = 0; t < tokens; ++t) {
                if (out.size() >= original_size_) {
                    throw DecodeError{
                        StrFormat("block %u holds %u tokens, but the original "
                                  "size of %zu bytes is reached after %u",
                                  block_, tokens, original_size_, t)};
                }
                DecodeToken(out);
            }
        }
        // What follows the last token is the padding of the last byte, all zeros.
        const std::size_t used = (in_.BitPosition() + 7) / 8;
        if (used != in_.Size()) {
            throw DecodeError{
                StrFormat("the bit stream has %zu bytes after its end (%zu of %zu used)",
                          in_.Size() - used, used, in_.Size())};
        }
        if (in_.BitsLeft() != 0 &&
            in_.Read(static_cast<unsigned>(in_.BitsLeft()), "padding") != 0) {
            throw DecodeError{"the padding bits of the last byte are not zero"};
        }
        return out;
    }

  private:
    void ReadShortLengths(int count_bits, unsigned alphabet, bool with_skip, DecodeTable& table,
                          const char* name) {
        const unsigned n = in_.Read(count_bits, "a code table size");
        if (n == 0) {
            const unsigned symbol = in_.Read(count_bits, "a single-symbol code");
            if (symbol >= alphabet) {
                throw DecodeError{
                    StrFormat("block %u: single %s symbol %u is outside the "
                              "alphabet of %u",
                              block_, name, symbol, alphabet)};
            }
            table.SetSingle(symbol);
            return;
        }
        if (n > alphabet) {
            throw DecodeError{StrFormat("block %u: %u %s lengths for an alphabet of %u", block_, n,
                                        name, alphabet)};
        }
        std::array<std::uint8_t, kNumCodeLen> lengths{};
        unsigned i = 0;
        while (i < n) {
            unsigned k = in_.Read(3, "a code length");
            if (k == 7) {
                while (in_.Read(1, "a code length") == 1) {
                    if (++k > kMaxCodeBits) {
                        throw DecodeError{
                            StrFormat("block %u: a %s length exceeds 16 bits", block_, name)};
                    }
                }
            }
            lengths[i++] = static_cast<std::uint8_t>(k);
            if (with_skip && i == kCodeLenSkipAfter) i += in_.Read(2, "a zero-length skip");
        }
        table.Build(std::span<const std::uint8_t>(lengths.data(), alphabet), name);
    }

    void ReadLitLenLengths() {
        const unsigned n = in_.Read(kLitLenCountBits, "the literal/length table size");
        if (n == 0) {
            const unsigned symbol = in_.Read(kLitLenCountBits, "a single literal/length symbol");
            if (symbol >= kNumLitLen) {
                throw DecodeError{
                    StrFormat("block %u: single literal/length symbol %u is "
                              "outside the alphabet of %u",
                              block_, symbol, kNumLitLen)};
            }
            lit_len_.SetSingle(symbol);
            if (trace_ != nullptr) trace_->lit_len_lengths.assign(kNumLitLen, 0);
            return;
        }
        if (n > kNumLitLen) {
            throw DecodeError{
                StrFormat("block %u: %u literal/length lengths for an alphabet "
                          "of %u",
                          block_, n, kNumLitLen)};
        }
        std::array<std::uint8_t, kNumLitLen> lengths{};
        unsigned i = 0;
        while (i < n) {
            const unsigned c = code_len_.Decode(in_, "a literal/length code length");
            if (c >= kZeroRunSymbols) {
                lengths[i++] = static_cast<std::uint8_t>(c - 2);
                continue;
            }
            unsigned run = 1;
            if (c == 1) run = in_.Read(4, "a zero run") + 3;
            if (c == 2) run = in_.Read(kLitLenCountBits, "a zero run") + 20;
            if (run > n - i) {
                throw DecodeError{
                    StrFormat("block %u: a run of %u zero lengths passes the "
                              "%u lengths of the table",
                              block_, run, n)};
            }
            i += run;  // the lengths are zero already
        }
        lit_len_.Build(lengths, "literal/length");
        if (trace_ != nullptr) trace_->lit_len_lengths.assign(lengths.begin(), lengths.end());
    }

    void DecodeToken(std::vector<std::uint8_t>& out) {
        const unsigned symbol = lit_len_.Decode(in_, "a literal/length code");
        if (symbol < 256) {
            out.push_back(static_cast<std::uint8_t>(symbol));
            if (trace_ != nullptr)
                trace_->tokens.push_back({0, 0, static_cast<std::uint8_t>(symbol)});
            return;
        }
        const std::size_t length = symbol - kLengthSymbolBias;
        const unsigned bits = dist_.Decode(in_, "a distance code");
        std::size_t distance = bits;
        if (bits > 1) distance = (1u << (bits - 1)) | in_.Read(bits - 1, "distance bits");
        ++distance;
        if (distance > out.size()) {
            throw DecodeError{
                StrFormat("a match at output byte %zu reaches %zu bytes back, "
                          "before the start",
                          out.size(), distance)};
        }
        if (length > original_size_ - out.size()) {
            throw DecodeError{
                StrFormat("a match of %zu bytes at output byte %zu passes the "
                          "original size of %zu",
                          length, out.size(), original_size_)};
        }
        if (trace_ != nullptr) {
            trace_->tokens.push_back(
                {static_cast<std::uint16_t>(length), static_cast<std::uint16_t>(distance), 0});
        }
        const std::size_t from = out.size() - distance;
        for (std::size_t k = 0; k < length; ++k) out.push_back(out[from + k]);
    }

    BitReader in_;
    std::size_t original_size_;
    Lh5Trace* trace_;
    unsigned block_ = 0;
    DecodeTable code_len_;
    DecodeTable lit_len_;
    DecodeTable dist_;
};

}  // namespace

std::optional<std::vector<std::uint8_t>> DecodeLh5(std::span<const std::uint8_t> stream,
                                                   std::size_t original_size, std::string* error,
                                                   Lh5Trace* trace) {
    try {
        return Lh5Decoder(stream, original_size, trace).Run();
    } catch (const DecodeError& e) {
        if (error != nullptr) *error = e.message;
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        // A forged original size with tokens that cost no bits can ask for gigabytes.
        if (error != nullptr) {
            *error = StrFormat("no memory for the %zu bytes of the original size", original_size);
        }
        return std::nullopt;
    }
}

std::optional<std::vector<std::uint8_t>> DecodeCompressedData(std::span<const std::uint8_t> data,
                                                              std::string* error, Lh5Trace* trace) {
    auto fail = [error](std::string message) -> std::optional<std::vector<std::uint8_t>> {
        if (error != nullptr) *error = std::move(message);
        return std::nullopt;
    };
    const CompressedFrame frame = ReadCompressedFrame(data);
    switch (frame.fault) {
        case CompressedFrame::Fault::TooShort:
            return fail(StrFormat("compressed data of %zu bytes is shorter than its %u-byte frame",
                                  data.size(), kCompressedOverhead));
        case CompressedFrame::Fault::BadTotal:
            return fail(StrFormat("total size %u is outside 9..%zu, the size of the data",
                                  frame.total, data.size()));
        case CompressedFrame::Fault::None:
            break;
    }
    if (frame.closing != 0x00) {
        return fail(StrFormat("the closing byte at offset %u is %02x, not 00", frame.total - 1,
                              frame.closing));
    }
    return DecodeLh5(frame.stream, frame.original, error, trace);
}

}  // namespace fwforge::lzh
