#include "compress/block_coder.h"

#include "compress/huffman_code.h"

namespace fwforge::lzh {
namespace {

// Zero runs among the literal/length code lengths: up to two are sent one by one,
// 3-18 as symbol 1 with a 4-bit count, 20 and more as symbol 2 with a 9-bit count.
// A run of exactly 19 fits neither counted form, so it goes out as one single zero
// followed by a run of 18.
constexpr unsigned kShortRunMax = 2;
constexpr unsigned kMediumRunMin = 3;
constexpr unsigned kMediumRunMax = 18;
constexpr unsigned kLongRunMin = 20;
constexpr int kMediumRunBits = 4;

// The number of literal/length lengths up to and including the last nonzero one.
unsigned SentLength(std::span<const std::uint8_t> lengths) {
    unsigned n = static_cast<unsigned>(lengths.size());
    while (n > 0 && lengths[n - 1] == 0) --n;
    return n;
}

}  // namespace

void BlockCoder::StartRun(std::uint8_t* sink, const std::uint32_t* consumed) {
    bits_.sink = sink;
    consumed_ = consumed;
    bits_.written = 0;
    bits_.stopped = false;
}

void BlockCoder::ResetCoder() {
    lit_counts_.fill(0);
    dist_counts_.fill(0);
    code_len_counts_.fill(0);
    bits_.buffer = 0;
    bits_.count = 0;
}

void BlockCoder::WriteSingleSymbol(int count_bits, int symbol_bits, unsigned symbol) {
    WriteBits(count_bits, 0);
    WriteBits(symbol_bits, symbol);
}

// Lengths of the code-length code and of the distance code: 3 bits up to 6, longer
// ones as k - 4 one-bits and a zero. The code-length code's lengths carry, right after
// the third, a 2-bit count of the zero lengths at places four to six that are skipped.
void BlockCoder::WriteShortLengths(std::span<const std::uint8_t> lengths, int count_bits,
                                   bool with_skip) {
    const unsigned n = SentLength(lengths);
    WriteBits(count_bits, n);
    unsigned i = 0;
    while (i < n) {
        const unsigned k = lengths[i++];
        if (k <= 6) {
            WriteBits(3, k);
        } else {
            WriteBits(k - 3, (1u << (k - 3)) - 2);
        }
        if (with_skip && i == kCodeLenSkipAfter) {
            // Places beyond n hold zero lengths too, so with n = 3 the count is 3.
            while (i < 6 && lengths[i] == 0) ++i;
            WriteBits(2, (i - kCodeLenSkipAfter) & 3);
        }
    }
}

void BlockCoder::WriteCodeLengthCode() {
    code_len_counts_.fill(0);
    const std::span<const std::uint8_t> lengths(lit_lengths_);
    const unsigned n = SentLength(lengths);
    unsigned i = 0;
    while (i < n) {
        const unsigned k = lengths[i++];
        if (k != 0) {
            ++code_len_counts_[k + 2];
            continue;
        }
        unsigned run = 1;
        while (i < n && lengths[i] == 0) {
            ++i;
            ++run;
        }
        if (run <= kShortRunMax) {
            code_len_counts_[0] += run;
        } else if (run <= kMediumRunMax) {
            ++code_len_counts_[1];
        } else if (run < kLongRunMin) {
            ++code_len_counts_[0];
            ++code_len_counts_[1];
        } else {
            ++code_len_counts_[2];
        }
    }
    const unsigned root = BuildHuffmanCode(code_len_counts_, code_len_lengths_, code_len_codes_);
    if (root >= kNumCodeLen) {
        WriteShortLengths(code_len_lengths_, kCodeLenCountBits, true);
    } else {
        WriteSingleSymbol(kCodeLenCountBits, kCodeLenCountBits, root);
    }
}

void BlockCoder::WriteLitLenLengths() {
    const std::span<const std::uint8_t> lengths(lit_lengths_);
    const unsigned n = SentLength(lengths);
    WriteBits(kLitLenCountBits, n);
    auto put = [this](unsigned symbol) {
        WriteBits(code_len_lengths_[symbol], code_len_codes_[symbol]);
    };
    unsigned i = 0;
    while (i < n) {
        const unsigned k = lengths[i++];
        if (k != 0) {
            put(k + 2);
            continue;
        }
        unsigned run = 1;
        while (i < n && lengths[i] == 0) {
            ++i;
            ++run;
        }
        if (run <= kShortRunMax) {
            for (unsigned r = 0; r < run; ++r) put(0);
        } else if (run <= kMediumRunMax) {
            put(1);
            WriteBits(kMediumRunBits, run - kMediumRunMin);
        } else if (run < kLongRunMin) {
            put(0);
            put(1);
            WriteBits(kMediumRunBits, kMediumRunMax - kMediumRunMin);
        } else {
            put(2);
            WriteBits(kLitLenCountBits, run - kLongRunMin);
        }
    }
}

void BlockCoder::WriteTokens(std::span<const std::uint8_t> tokens, std::uint32_t token_count) {
    BitWriter w = bits_;
    std::size_t at = 0;
    unsigned flags = 0;
    for (std::uint32_t i = 0; i < token_count; ++i) {
        if (i % kTokensPerGroup == 0) {
            flags = tokens[at++];
        } else {
            flags <<= 1;
        }
        if (flags & 0x80) {
            const unsigned symbol = tokens[at] + 256u;
            const unsigned distance_code = (unsigned{tokens[at + 1]} << 8) | tokens[at + 2];
            at += kMatchTokenBytes;
            w.Write(lit_lengths_[symbol], lit_codes_[symbol]);
            const unsigned bits = DistanceBits(distance_code);
            w.Write(dist_lengths_[bits], dist_codes_[bits]);
            // The top bit of a distance code is implied by its bit length.
            if (bits > 1) w.Write(bits - 1, distance_code);
        } else {
            const unsigned symbol = tokens[at++];
            w.Write(lit_lengths_[symbol], lit_codes_[symbol]);
        }
        if (w.stopped) break;
    }
    bits_ = w;
}

void BlockCoder::FlushBlock(std::span<const std::uint8_t> tokens) {
    bits_.bound = *consumed_;
    const unsigned lit_root = BuildHuffmanCode(lit_counts_, lit_lengths_, lit_codes_);
    // Every token counts exactly one literal/length symbol, so the root's count (or the
    // single symbol's) is the block's token count.
    const std::uint32_t token_count = lit_counts_[lit_root];
    WriteBits(kTokenCountBits, token_count);
    if (lit_root >= kNumLitLen) {
        WriteCodeLengthCode();
        WriteLitLenLengths();
    } else {
        WriteSingleSymbol(kCodeLenCountBits, kCodeLenCountBits, 0);
        WriteSingleSymbol(kLitLenCountBits, kLitLenCountBits, lit_root);
    }

    const unsigned dist_root = BuildHuffmanCode(dist_counts_, dist_lengths_, dist_codes_);
    if (dist_root >= kNumDistBits) {
        WriteShortLengths(dist_lengths_, kDistCountBits, false);
    } else {
        WriteSingleSymbol(kDistCountBits, kDistCountBits, dist_root);
    }

    WriteTokens(tokens, token_count);
    bits_.Drain();
    lit_counts_.fill(0);
    dist_counts_.fill(0);
}

void BlockCoder::FinishStream(std::span<const std::uint8_t> tokens) {
    FlushBlock(tokens);
    // Seven zero bits push out a pending partial byte and never complete a new one.
    WriteBits(7, 0);
    bits_.Drain();
}

}  // namespace fwforge::lzh
