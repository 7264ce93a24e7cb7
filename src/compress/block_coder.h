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

    std::uint32_t Written() const { return bits_.written; }
    bool Stopped() const { return bits_.stopped; }

    // The number of significant bits of a distance code: its symbol.
    static unsigned DistanceBits(unsigned distance_code) {
        return static_cast<unsigned>(std::bit_width(distance_code));
    }

  private:
    // MSB-first bit writer over the run's sink. Bits gather in a 64-bit buffer and
    // leave it four bytes at a time while the output bound leaves room for all four,
    // one byte at a time near it, so that every byte meets the same bound as when
    // written alone. The bound (the consumed count) cannot change while a block is
    // written, and FlushBlock drains every whole byte before it returns, so no byte is
    // held back into a later block's bound. It is a small value so that the token loop
    // can keep a copy in registers: a byte store through `sink` could alias its fields.
    struct BitWriter {
        std::uint64_t buffer = 0;  // pending bits in the low `count` bits
        unsigned count = 0;
        std::uint8_t* sink = nullptr;
        std::uint32_t written = 0;
        std::uint32_t bound = 0;  // the consumed count while the block is written
        bool stopped = false;

        void Write(unsigned n, unsigned x) {
            buffer = (buffer << n) | (x & ((1u << n) - 1));
            count += n;
            if (count >= 32) PutWord();
        }
        void PutWord() {
            count -= 32;
            if (written + 4 <= bound) {
                const auto word = static_cast<std::uint32_t>(buffer >> count);
                sink[written] = static_cast<std::uint8_t>(word >> 24);
                sink[written + 1] = static_cast<std::uint8_t>(word >> 16);
                sink[written + 2] = static_cast<std::uint8_t>(word >> 8);
                sink[written + 3] = static_cast<std::uint8_t>(word);
                written += 4;
            } else {
                for (int shift = 24; shift >= 0; shift -= 8)
                    PutByte(static_cast<std::uint8_t>(buffer >> (count + shift)));
            }
        }
        void Drain() {
            while (count >= 8) {
                count -= 8;
                PutByte(static_cast<std::uint8_t>(buffer >> count));
            }
        }
        void PutByte(std::uint8_t byte) {
            if (written < bound) {
                sink[written++] = byte;
            } else {
                stopped = true;
            }
        }
    };

    void WriteBits(unsigned n, unsigned x) { bits_.Write(n, x); }

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

    BitWriter bits_;
    const std::uint32_t* consumed_ = nullptr;
};

}  // namespace fwforge::lzh
