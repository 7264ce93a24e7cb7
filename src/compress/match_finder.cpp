#include "compress/match_finder.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace fwforge::lzh {
namespace {

// Node numbers are 16-bit: 0 is none, 1-8191 internal nodes, 8192 + c the root of
// the strings that start with byte c, and a leaf carries the position of its string
// (8192-16383; a position below 8192 after a slide maps onto the same leaf).
constexpr unsigned kNone = 0;
constexpr unsigned kRootBase = kWindowSize;
constexpr unsigned kNodeTableSize = kWindowSize + 256;  // internal nodes and roots
constexpr unsigned kLeafLimit = 2 * kWindowSize;        // internal nodes and leaves
// The children of node q whose edge starts with byte c are in the chain headed at
// next[16384 + head(q, c)]. A lookup walks the chain for the entry whose parent is q,
// so head(q, c) must differ for every c of one q (then a chain holds at most one
// child of any node); beyond that the function decides only how long the chains are,
// never which child is found. 32768 heads keep most chains at one entry or none.
// Nothing else reads a chain: the next link of a leaf out of the tree is followed only
// for a leaf that a 256-byte match replaced, and that link names the replacing leaf.
constexpr unsigned kChainBase = 2 * kWindowSize;
constexpr unsigned kHeadBits = 15;
constexpr unsigned kNextTableSize = kChainBase + (1u << kHeadBits);
// A node's position with this bit set still has to be passed up to the node's parent.
constexpr std::uint16_t kPassUpFlag = 0x8000;
// Reading eight bytes at a time may look up to seven bytes past the last lookahead.
constexpr unsigned kCompareSlack = 8;
// From this previous match length on, the next string is known to share at least
// length - 1 bytes with the string after the match's source.
constexpr unsigned kShortcutMinLength = 4;

// The node scattered by Fibonacci hashing (the top bits of node times 2^32 / golden
// ratio), plus the byte times an odd number: distinct modulo 2^15 for distinct bytes.
unsigned ChainHead(unsigned node, std::uint8_t byte) {
    constexpr unsigned kHeadMask = (1u << kHeadBits) - 1;
    return kChainBase + ((((node * 0x9E3779B1u) >> (32 - kHeadBits)) + byte * 0x3B5u) & kHeadMask);
}

// The first index from `from` on below `limit` at which a and b differ, else `limit`.
// Only the first difference matters, so comparing words gives the same answer.
inline unsigned CommonLength(const std::uint8_t* a, const std::uint8_t* b, unsigned from,
                             unsigned limit) {
    unsigned i = from;
    if constexpr (std::endian::native == std::endian::little) {
        while (i < limit) {
            std::uint64_t x, y;
            std::memcpy(&x, a + i, sizeof x);
            std::memcpy(&y, b + i, sizeof y);
            if (const std::uint64_t diff = x ^ y; diff != 0) {
                i += static_cast<unsigned>(std::countr_zero(diff)) >> 3;
                return i < limit ? i : limit;
            }
            i += sizeof x;
        }
        return limit;
    } else {
        while (i < limit && a[i] == b[i]) ++i;
        return i;
    }
}

}  // namespace

MatchFinder::MatchFinder()
    : window_(kWindowBufferSize + kCompareSlack, 0),
      level_(kNodeTableSize, 0),
      position_(kNodeTableSize, 0),
      child_count_(kNodeTableSize, 0),
      parent_(kLeafLimit, 0),
      prev_(kLeafLimit, 0),
      next_(kNextTableSize, 0) {}

void MatchFinder::ResetTree() {
    for (unsigned root = kRootBase; root < kNodeTableSize; ++root) {
        level_[root] = 1;
        position_[root] = 0;
    }
    std::fill(parent_.begin() + kWindowSize, parent_.end(), std::uint16_t{kNone});
    free_node_ = 1;
    for (unsigned node = 1; node < kWindowSize - 1; ++node)
        next_[node] = static_cast<std::uint16_t>(node + 1);
    next_[kWindowSize - 1] = kNone;
    std::fill(next_.begin() + kChainBase, next_.end(), std::uint16_t{kNone});
}

unsigned MatchFinder::Child(unsigned node, std::uint8_t byte) {
    unsigned r = next_[ChainHead(node, byte)];
    // A chain holds at most one child of any node; entry 0 stops the walk.
    parent_[kNone] = static_cast<std::uint16_t>(node);
    while (parent_[r] != node) r = next_[r];
    return r;
}

// New children go to the head of their chain.
void MatchFinder::MakeChild(unsigned node, std::uint8_t byte, unsigned child) {
    const unsigned head = ChainHead(node, byte);
    const unsigned old_first = next_[head];
    next_[head] = static_cast<std::uint16_t>(child);
    next_[child] = static_cast<std::uint16_t>(old_first);
    prev_[old_first] = static_cast<std::uint16_t>(child);
    prev_[child] = static_cast<std::uint16_t>(head);
    parent_[child] = static_cast<std::uint16_t>(node);
    ++child_count_[node];
}

// The strings at `old_node` and `pos` part after match_length_ bytes: a new internal
// node takes old_node's place with both as its children, the old one linked first.
void MatchFinder::Split(unsigned old_node, unsigned pos) {
    const std::uint8_t* text = window_.data();
    const unsigned node = free_node_;
    free_node_ = next_[node];
    child_count_[node] = 0;
    unsigned t = prev_[old_node];
    prev_[node] = static_cast<std::uint16_t>(t);
    next_[t] = static_cast<std::uint16_t>(node);
    t = next_[old_node];
    next_[node] = static_cast<std::uint16_t>(t);
    prev_[t] = static_cast<std::uint16_t>(node);
    parent_[node] = parent_[old_node];
    level_[node] = static_cast<std::uint8_t>(match_length_);
    position_[node] = static_cast<std::uint16_t>(pos);
    MakeChild(node, text[match_position_ + match_length_], old_node);
    MakeChild(node, text[pos + match_length_], pos);
}

void MatchFinder::Insert(unsigned pos) {
    const std::uint8_t* text = window_.data();
    unsigned q;
    unsigned r;
    unsigned length = match_length_;
    if (length >= kShortcutMinLength) {
        // Start below the deepest node on the path of the previous source + 1 that the
        // known overlap still covers, instead of descending from the root.
        --length;
        r = (match_position_ + 1) | kWindowSize;
        // A leaf that a 256-byte match replaced left the tree and points to its
        // successor through its next link.
        while ((q = parent_[r]) == kNone) r = next_[r];
        while (level_[q] >= length) {
            r = q;
            q = parent_[q];
        }
        // The descent below skips these ancestors, so hand them the current position
        // here: flagged ones directly, the first unflagged internal one as pending.
        unsigned t = q;
        while (position_[t] & kPassUpFlag) {
            position_[t] = static_cast<std::uint16_t>(pos);
            t = parent_[t];
        }
        if (t < kWindowSize) position_[t] = static_cast<std::uint16_t>(pos | kPassUpFlag);
    } else {
        q = text[pos] + kRootBase;
        const std::uint8_t byte = text[pos + 1];
        r = Child(q, byte);
        if (r == kNone) {
            MakeChild(q, byte, pos);
            match_length_ = 1;
            return;
        }
        length = 2;
    }

    for (;;) {
        unsigned limit;
        unsigned candidate;
        if (r >= kWindowSize) {
            limit = kMaxMatch;
            candidate = r;
        } else {
            limit = level_[r];
            candidate = position_[r] & ~unsigned{kPassUpFlag};
        }
        // Positions at or above the current one denote the string one window earlier.
        if (candidate >= pos) candidate -= kWindowSize;
        match_position_ = candidate;
        length = CommonLength(text + pos, text + candidate, length, limit);
        if (length < limit) {
            match_length_ = length;
            Split(r, pos);
            return;
        }
        if (length >= kMaxMatch) break;
        position_[r] = static_cast<std::uint16_t>(pos);
        q = r;
        const std::uint8_t byte = text[pos + length];
        r = Child(q, byte);
        if (r == kNone) {
            match_length_ = length;
            MakeChild(q, byte, pos);
            return;
        }
        // The child was found by this byte, so it matches too.
        ++length;
    }

    // A full-length match: the current position takes the old leaf's place, since
    // the newer string matches everything the old one would.
    match_length_ = length;
    unsigned t = prev_[r];
    prev_[pos] = static_cast<std::uint16_t>(t);
    next_[t] = static_cast<std::uint16_t>(pos);
    t = next_[r];
    next_[pos] = static_cast<std::uint16_t>(t);
    prev_[t] = static_cast<std::uint16_t>(pos);
    parent_[pos] = static_cast<std::uint16_t>(q);
    parent_[r] = kNone;
    next_[r] = static_cast<std::uint16_t>(pos);
}

void MatchFinder::Delete(unsigned pos) {
    if (parent_[pos] == kNone) return;
    unsigned r = prev_[pos];
    unsigned s = next_[pos];
    next_[r] = static_cast<std::uint16_t>(s);
    prev_[s] = static_cast<std::uint16_t>(r);
    r = parent_[pos];
    parent_[pos] = kNone;
    if (r >= kWindowSize || --child_count_[r] > 1) return;

    // r is an internal node with one child left and goes away. Its position (possibly
    // a pending one) passes up through the flagged ancestors: each keeps the newest
    // position seen, counting positions at or above pos as one window older, and the
    // first unflagged internal ancestor receives it as pending.
    unsigned own = position_[r] & ~unsigned{kPassUpFlag};
    if (own >= pos) own -= kWindowSize;
    unsigned newest = own;
    unsigned q = parent_[r];
    unsigned u;
    while ((u = position_[q]) & kPassUpFlag) {
        u &= ~unsigned{kPassUpFlag};
        if (u >= pos) u -= kWindowSize;
        if (u > newest) newest = u;
        position_[q] = static_cast<std::uint16_t>(newest | kWindowSize);
        q = parent_[q];
    }
    if (q < kWindowSize) {
        if (u >= pos) u -= kWindowSize;
        if (u > newest) newest = u;
        position_[q] = static_cast<std::uint16_t>(newest | kWindowSize | kPassUpFlag);
    }

    // The remaining child is looked up by r's own string (its position before the
    // update above), so the byte comes from the old text, not from the lookahead.
    s = Child(r, window_[own + level_[r]]);
    unsigned t = prev_[s];
    u = next_[s];
    next_[t] = static_cast<std::uint16_t>(u);
    prev_[u] = static_cast<std::uint16_t>(t);
    t = prev_[r];
    next_[t] = static_cast<std::uint16_t>(s);
    prev_[s] = static_cast<std::uint16_t>(t);
    t = next_[r];
    prev_[t] = static_cast<std::uint16_t>(s);
    next_[s] = static_cast<std::uint16_t>(t);
    parent_[s] = parent_[r];
    parent_[r] = kNone;
    next_[r] = static_cast<std::uint16_t>(free_node_);
    free_node_ = r;
}

}  // namespace fwforge::lzh
