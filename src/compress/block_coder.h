#pragma once
// The block coder: turns the encoder's token buffer into lh5 blocks (code tables, then
// tokens) and writes them through an MSB-first bit writer that never lets the stream
// grow past the number of input bytes read so far.

#include <array>
#include <bit>
#include <cstdint>
#include <span>

#include "compress/lzh_format.h"

namespace fwforge::lzh {

// Token buffer layout, shared with the encoder that fills it: groups of up to eight
// tokens behind one flag byte (bit 7 = first token, set = match); a literal is its
// byte, a match is length - 3 and the distance code's high and low byte.
inline constexpr unsigned kTokensPerGroup = 8;
inline constexpr unsigned kMatchTokenBytes = 3;
// A group is started only below this margin from the buffer's end: one flag byte and
// eight matches of three bytes always fit behind it.
inline constexpr unsigned kGroupMargin = kTokensPerGroup * kMatchTokenBytes;

class BlockCoder {
  public:
    // Binds the run's byte sink and output bound and clears the written-byte counter
    // and the stop flag. `sink` must have room for as many bytes as `*consumed` can
    // reach; a byte is stored only while fewer than `*consumed` have been written.
    void StartRun(std::uint8_t* sink, const std::uint32_t* consumed);

    // Clears the counts and empties the bit writer.
    void ResetCoder();

    void CountLiteral(std::uint8_t byte) { ++lit_counts_[byte]; }
    void CountMatch(unsigned length, unsigned distance_code) {
        ++lit_counts_[length + kLengthSymbolBias];
        ++dist_counts_[DistanceBits(distance_code)];
    }

    // Sends the tokens as one block and clears the counts. Stops early once the output
    // bound has cut the stream off.
    void FlushBlock(std::span<const std::uint8_t> tokens);
    // Sends the last block and pushes out the last partial byte, padded with zeros.
    void FinishStream(std::span<const std::uint8_t> tokens);

    std::uint32_t Written() const { return written_; }
    bool Stopped() const { return stopped_; }

    // The number of significant bits of a distance code: its symbol.
    static unsigned DistanceBits(unsigned distance_code) {
        return static_cast<unsigned>(std::bit_width(distance_code));
    }

  private:
    void WriteBits(unsigned n, unsigned x) {
        bit_buffer_ = (bit_buffer_ << n) | (x & ((1u << n) - 1));
        bit_count_ += n;
        while (bit_count_ >= 8) {
            bit_count_ -= 8;
            PutByte(static_cast<std::uint8_t>(bit_buffer_ >> bit_count_));
        }
    }
    void PutByte(std::uint8_t byte) {
        if (written_ < *consumed_) {
            sink_[written_++] = byte;
        } else {
            stopped_ = true;
        }
    }

    void WriteCodeLengthCode();
    void WriteLitLenLengths();
    void WriteShortLengths(std::span<const std::uint8_t> lengths, int count_bits, bool with_skip);
    void WriteSingleSymbol(int count_bits, int symbol_bits, unsigned symbol);
    void WriteTokens(std::span<const std::uint8_t> tokens, std::uint32_t token_count);

    // Counts, each with room for the inner nodes of its Huffman tree.
    std::array<std::uint32_t, 2 * kNumLitLen - 1> lit_counts_{};
    std::array<std::uint32_t, 2 * kNumDistBits - 1> dist_counts_{};
    std::array<std::uint32_t, 2 * kNumCodeLen - 1> code_len_counts_{};

    std::array<std::uint8_t, kNumLitLen> lit_lengths_{};
    std::array<std::uint16_t, kNumLitLen> lit_codes_{};
    std::array<std::uint8_t, kNumCodeLen> code_len_lengths_{};
    std::array<std::uint16_t, kNumCodeLen> code_len_codes_{};
    std::array<std::uint8_t, kNumDistBits> dist_lengths_{};
    std::array<std::uint16_t, kNumDistBits> dist_codes_{};

    std::uint32_t bit_buffer_ = 0;  // pending bits in the low bit_count_ bits
    unsigned bit_count_ = 0;

    std::uint8_t* sink_ = nullptr;
    const std::uint32_t* consumed_ = nullptr;
    std::uint32_t written_ = 0;
    bool stopped_ = false;
};

}  // namespace fwforge::lzh
