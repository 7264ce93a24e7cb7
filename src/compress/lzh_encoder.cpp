#include "compress/lzh_encoder.h"

#include <cstring>
#include <new>

namespace fwforge::lzh {
namespace {

// First fill: the window and one longest match of lookahead; each refill a window.
constexpr std::uint32_t kFirstFill = kWindowSize + kMaxMatch;  // 8448
constexpr std::uint32_t kRefill = kWindowSize;

}  // namespace

void LzhEncoder::AllocateStorage() {
    if (!finder_) {
        if (limits_.fail_working_storage) throw OutOfMemory();
        if (limits_.allocate &&
            !limits_.allocate(EncoderAllocation::WorkingStorage, sizeof(MatchFinder))) {
            throw OutOfMemory();
        }
        try {
            finder_ = std::make_unique<MatchFinder>();
        } catch (const std::bad_alloc&) {
            throw OutOfMemory();
        }
    }
    if (tokens_.empty()) {
        for (std::size_t size = kTokenBufferSize; size >= kTokenBufferMinimum;
             size = size / 10 * 9) {
            if (size > limits_.token_buffer_limit) continue;
            if (limits_.allocate && !limits_.allocate(EncoderAllocation::TokenBuffer, size)) {
                continue;
            }
            try {
                tokens_.assign(size, 0);
                return;
            } catch (const std::bad_alloc&) {
            }
        }
        throw OutOfMemory();
    }
}

std::uint8_t* LzhEncoder::Window() {
    AllocateStorage();
    return finder_->Window();
}

std::uint32_t LzhEncoder::Read(std::uint8_t* place, std::uint32_t count) {
    const std::uint32_t got = source_->ReadBytes(place, count);
    consumed_ += got;
    return got;
}

void LzhEncoder::CutMatchToRemaining() {
    if (finder_->MatchLength() > remaining_) {
        finder_->SetMatchLength(static_cast<unsigned>(remaining_));
    }
}

void LzhEncoder::Advance() {
    --remaining_;
    if (++pos_ == kPositionLimit) {
        // Slide: the last window and its lookahead move down, and the room above is
        // refilled. Leaves keep their numbers; positions below 8192 map onto them.
        std::uint8_t* text = finder_->Window();
        std::memmove(text, text + kWindowSize, kWindowSize + kMaxMatch);
        remaining_ += Read(text + kWindowSize + kMaxMatch, kRefill);
        pos_ = kFirstPosition;
        ++slides_;
    }
    finder_->Step(pos_);
}

// A block is cut only when a new group of eight starts, so a block always holds whole
// groups and its flag bytes stay at fixed places.
bool LzhEncoder::StartToken() {
    flag_mask_ >>= 1;
    if (flag_mask_ == 0) {
        flag_mask_ = 0x80;
        if (fill_ >= tokens_.size() - kGroupMargin) {
            coder_.FlushBlock({tokens_.data(), fill_});
            if (coder_.Stopped()) return false;
            fill_ = 0;
        }
        flag_at_ = fill_++;
        tokens_[flag_at_] = 0;
    }
    return true;
}

void LzhEncoder::EmitLiteral(std::uint8_t byte) {
    if (!StartToken()) return;
    tokens_[fill_++] = byte;
    coder_.CountLiteral(byte);
}

void LzhEncoder::EmitMatch(unsigned length, unsigned distance_code) {
    if (!StartToken()) return;
    tokens_[flag_at_] |= static_cast<std::uint8_t>(flag_mask_);
    tokens_[fill_++] = static_cast<std::uint8_t>(length - kMinMatch);
    tokens_[fill_++] = static_cast<std::uint8_t>(distance_code >> 8);
    tokens_[fill_++] = static_cast<std::uint8_t>(distance_code);
    coder_.CountMatch(length, distance_code);
}

void LzhEncoder::EncodeStream(ByteSource& source, std::uint8_t* sink) {
    source_ = &source;
    consumed_ = 0;
    slides_ = 0;
    coder_.StartRun(sink, &consumed_);
    AllocateStorage();
    finder_->ResetTree();
    fill_ = 0;
    flag_mask_ = 0;
    coder_.ResetCoder();

    // The window is not cleared: lookahead beyond the input's end reads what earlier
    // runs left there. That can change which of equally long matches is taken (the
    // lengths are cut to the remaining input), never what the stream decodes to.
    const std::uint8_t* text = finder_->Window();
    remaining_ = Read(finder_->Window() + kFirstPosition, kFirstFill);
    pos_ = kFirstPosition;
    finder_->SetMatchLength(0);
    finder_->Insert(pos_);
    CutMatchToRemaining();

    // Lazy matching by one position: a match is sent only if the match found one
    // position later is not longer.
    while (remaining_ > 0 && !coder_.Stopped()) {
        const unsigned last_length = finder_->MatchLength();
        const unsigned last_position = finder_->MatchPosition();
        Advance();
        CutMatchToRemaining();
        if (finder_->MatchLength() > last_length || last_length < kMinMatch) {
            EmitLiteral(text[pos_ - 1]);
        } else {
            // pos_ - 1 is where the match starts; the code is its distance minus one,
            // kept to 13 bits so that it survives a slide in between.
            EmitMatch(last_length, (pos_ - last_position - 2) & (kWindowSize - 1));
            // These advances run even when the token was refused by a stop: they can
            // still read input, and the consumed count goes into the header. The match
            // length is cut only after the last of them.
            for (unsigned i = 1; i < last_length; ++i) Advance();
            CutMatchToRemaining();
        }
    }
    if (!coder_.Stopped()) coder_.FinishStream({tokens_.data(), fill_});
}

}  // namespace fwforge::lzh
