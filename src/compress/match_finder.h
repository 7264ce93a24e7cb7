#pragma once
// The dictionary of the encoder: the sliding window and a compact digital search tree
// over the strings that start at the last 8191 positions. Inserting the current
// position finds the longest match among them on the way down.
//
// Which of several equally long matches is found decides the distance that is sent,
// so the node numbering, the chain order and the position updates below are part of
// the output format as far as this system is concerned, not implementation details.

#include <cstdint>
#include <vector>

#include "compress/lzh_format.h"

namespace fwforge::lzh {

// The window holds two window sizes plus one longest match: current positions run
// from 8192 to 16383, and the lookahead of the last one ends at 16639.
inline constexpr unsigned kWindowBufferSize = 2 * kWindowSize + kMaxMatch;  // 16640
inline constexpr unsigned kFirstPosition = kWindowSize;
inline constexpr unsigned kPositionLimit = 2 * kWindowSize;

class MatchFinder {
  public:
    // Allocates the window (zero-filled) and the tree; throws std::bad_alloc.
    MatchFinder();

    // Empties the tree: roots at level 1 with position 0, no leaf in the tree, a fresh
    // free list, all child chains empty. The window keeps its bytes.
    void ResetTree();

    std::uint8_t* Window() { return window_.data(); }

    // Removes the leaf of `pos` (the string 8192 bytes before it) when it is in the tree.
    void Delete(unsigned pos);
    // Inserts the string at `pos` and leaves the longest match in MatchLength() and
    // MatchPosition(). The match length the previous insertion left (as the main loop
    // may have cut it) selects the shortcut for the overlap of a long match.
    void Insert(unsigned pos);

    unsigned MatchLength() const { return match_length_; }
    unsigned MatchPosition() const { return match_position_; }
    void SetMatchLength(unsigned length) { match_length_ = length; }

  private:
    unsigned Child(unsigned node, std::uint8_t byte);
    void MakeChild(unsigned node, std::uint8_t byte, unsigned child);
    void Split(unsigned old_node, unsigned pos);

    std::vector<std::uint8_t> window_;
    std::vector<std::uint8_t> level_;        // internal nodes and roots
    std::vector<std::uint16_t> position_;    // internal nodes and roots; bit 15 = flag
    std::vector<std::uint8_t> child_count_;  // internal nodes and roots
    std::vector<std::uint16_t> parent_;      // internal nodes and leaves
    std::vector<std::uint16_t> prev_;        // internal nodes and leaves
    std::vector<std::uint16_t> next_;        // nodes and leaves, then the chain heads
    unsigned free_node_ = 1;

    unsigned match_length_ = 0;
    unsigned match_position_ = 0;
};

}  // namespace fwforge::lzh
