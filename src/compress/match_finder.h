#pragma once
// The dictionary of the encoder: the sliding window and a compact digital search tree
// over the strings that start at the last 8191 positions. Inserting the current
// position finds the longest match among them on the way down.
//
// Which of several equally long matches is found decides the distance that is sent,
// so the tree's shape, the positions its nodes hold and the order in which they are
// updated are part of the output format as far as this system is concerned. How a
// node finds its child for a byte is not: a node has at most one child per byte, so
// any lookup structure returns the same child.

#include <array>
#include <cstdint>

#include "compress/lzh_format.h"

namespace fwforge::lzh {

// The window holds two window sizes plus one longest match: current positions run
// from 8192 to 16383, and the lookahead of the last one ends at 16639.
inline constexpr unsigned kWindowBufferSize = 2 * kWindowSize + kMaxMatch;  // 16640
inline constexpr unsigned kFirstPosition = kWindowSize;
inline constexpr unsigned kPositionLimit = 2 * kWindowSize;

class MatchFinder {
  public:
    // The window starts zero-filled. The object is large (about 470 KB) and meant to
    // live on the heap; its tables are plain arrays inside it, so the search reaches
    // them at fixed offsets from one pointer.
    MatchFinder();

    // Empties the tree: roots at level 1 with position 0, no leaf in the tree, a fresh
    // free list, no child links. The window keeps its bytes.
    void ResetTree();

    std::uint8_t* Window() { return window_.data(); }

    // Inserts the string at `pos` and leaves the longest match in MatchLength() and
    // MatchPosition(). The match length the previous insertion left (as the main loop
    // may have cut it) selects the shortcut for the overlap of a long match.
    void Insert(unsigned pos);
    // Removes the string 8192 bytes before `pos` from the tree, then inserts `pos`:
    // one step of the window, in one call.
    void Step(unsigned pos);

    unsigned MatchLength() const { return match_length_; }
    unsigned MatchPosition() const { return match_position_; }
    void SetMatchLength(unsigned length) { match_length_ = length; }

  private:
    // Every child of an internal node is in one chain of siblings (see ChainHead), a
    // child of a root in root_child_. A node's parent and its successor in the chain
    // are read together with the node's own fields, so they share one record: a step
    // of the search costs one cache line. A leaf uses only the parent and successor,
    // a root only the position (always 0) and the level (always 1).
    struct Node {
        std::uint16_t parent;    // 0 = not in the tree
        std::uint16_t next;      // next in the chain; for a free node, the next free one
        std::uint16_t position;  // internal nodes: bit 15 = still to be passed up
        std::uint8_t level;      // bytes shared by every string below the node
        std::uint8_t children;   // internal nodes only
        // Where the link that points at the node lives (a chain head, a root's child
        // slot or the next field of its predecessor), as a LinkOffset: a node leaves
        // or changes its place without a lookup of its parent's chain.
        std::uint32_t link;
    };

    // Removes the leaf of `pos` (the string 8192 bytes before it) when it is in the tree.
    void Delete(unsigned pos);

    unsigned Level(unsigned node) const { return nodes_[node].level; }
    std::uint16_t* FindChildLink(unsigned node, unsigned byte);
    void PushChild(unsigned node, unsigned byte, unsigned child);
    // Links: every link of the tree is a 16-bit field of this object, named in a
    // node's record by its byte offset from the object's start.
    std::uint32_t LinkOffset(const std::uint16_t* link) const {
        return static_cast<std::uint32_t>(reinterpret_cast<const unsigned char*>(link) -
                                          reinterpret_cast<const unsigned char*>(this));
    }
    std::uint16_t* LinkAt(std::uint32_t offset) {
        return reinterpret_cast<std::uint16_t*>(reinterpret_cast<unsigned char*>(this) + offset);
    }
    void SetLink(std::uint16_t* link, unsigned child);
    void Unlink(unsigned child);
    void Replace(unsigned old_node, unsigned new_node);
    void Split(unsigned parent, unsigned old_node, unsigned pos);
    bool StartBelowLastMatch(unsigned pos, unsigned length, unsigned& parent, unsigned& node);

    // Reading eight bytes at a time may look up to seven bytes past the last lookahead.
    static constexpr unsigned kCompareSlack = 8;
    static constexpr unsigned kHeadBits = 16;

    std::array<std::uint8_t, kWindowBufferSize + kCompareSlack> window_;
    // Internal nodes, leaves, roots and a scratch record; entry 0 is the sentinel of
    // the chain walk.
    std::array<Node, 2 * kWindowSize + 256 + 1> nodes_;
    std::array<std::uint16_t, 1u << kHeadBits> heads_;  // first child of each chain
    // Children of the roots, by the first two bytes of their strings: the lookup that
    // starts most searches needs no chain walk.
    std::array<std::uint16_t, 256 * 256> root_child_;
    unsigned free_node_ = 1;
    // One past the highest leaf and internal node used since the last reset; the first
    // reset covers every record.
    unsigned leaf_end_ = kPositionLimit;
    unsigned node_end_ = kWindowSize;

    unsigned match_length_ = 0;
    unsigned match_position_ = 0;
};

}  // namespace fwforge::lzh
