#pragma once
// The lh5 encoder's frame: the window with its refills, lazy matching by one position,
// the token buffer and its block cut rule. The match finder and the block coder do the
// work below it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "compress/block_coder.h"
#include "compress/match_finder.h"
#include "compress/module_compressor.h"

namespace fwforge::lzh {

// Where the encoder reads its input.
class ByteSource {
  public:
    virtual ~ByteSource() = default;
    // Reads up to `count` bytes to `place`; fewer than `count` means the input ended.
    virtual std::uint32_t ReadBytes(std::uint8_t* place, std::uint32_t count) = 0;
};

// The token buffer is tried at this size first and shrunk by a tenth after each
// failed allocation, down to the smallest size the block cut rule still works with.
inline constexpr std::size_t kTokenBufferSize = 16384;
inline constexpr std::size_t kTokenBufferMinimum = 4096;

class LzhEncoder {
  public:
    explicit LzhEncoder(EncoderLimits limits = {}) : limits_(limits) {}

    // Compresses the whole input into `sink`, which must have room for as many bytes
    // as the source can deliver. Clears the run counters first; afterwards Written(),
    // Consumed() and Stopped() describe the run. The working storage is allocated by
    // the first run (OutOfMemory when that fails) and kept; the window is not cleared.
    void EncodeStream(ByteSource& source, std::uint8_t* sink);

    std::uint32_t Written() const { return coder_.Written(); }
    std::uint32_t Consumed() const { return consumed_; }
    // How often the window slid during the run.
    std::uint32_t Slides() const { return slides_; }
    // The window buffer (kWindowBufferSize bytes); allocates the working storage.
    std::uint8_t* Window();
    bool Stopped() const { return coder_.Stopped(); }
    // 0 until the first run has allocated the token buffer.
    std::size_t TokenBufferSize() const { return tokens_.size(); }

  private:
    void AllocateStorage();
    std::uint32_t Read(std::uint8_t* place, std::uint32_t count);
    void Advance();
    void CutMatchToRemaining();
    bool StartToken();
    void EmitLiteral(std::uint8_t byte);
    void EmitMatch(unsigned length, unsigned distance_code);

    EncoderLimits limits_;
    std::unique_ptr<MatchFinder> finder_;
    std::vector<std::uint8_t> tokens_;
    BlockCoder coder_;

    ByteSource* source_ = nullptr;
    std::uint32_t consumed_ = 0;
    std::uint32_t slides_ = 0;
    std::int64_t remaining_ = 0;  // input bytes from the current position on
    unsigned pos_ = kFirstPosition;

    std::size_t fill_ = 0;     // token buffer fill position
    std::size_t flag_at_ = 0;  // the current group's flag byte
    unsigned flag_mask_ = 0;   // the current token's flag bit; 0 = start a group
};

}  // namespace fwforge::lzh
