#include "compress/match_finder.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace fwforge::lzh {
namespace {

// Node numbers are 16-bit: 0 is none, 1-8191 internal nodes, a leaf carries the
// position of its string (8192-16383; a position below 8192 after a slide maps onto
// the same leaf), and 16384 + c is the root of the strings that start with byte c.
// Which number a node has never decides a match, so the roots sit above the leaves
// and every node's record is found in one table without a test of its kind.
constexpr unsigned kNone = 0;
constexpr unsigned kRootBase = 2 * kWindowSize;
constexpr unsigned kNodeTableSize = kRootBase + 256;
// A record that takes writes meant for no node; nothing reads it.
constexpr unsigned kScratch = kNodeTableSize;
// A node's position with this bit set still has to be passed up to the node's parent.
constexpr std::uint16_t kPassUpFlag = 0x8000;
// From this previous match length on, the next string is known to share at least
// length - 1 bytes with the string after the match's source.
constexpr unsigned kShortcutMinLength = 4;

// The child of internal node q whose edge starts with byte c is in the chain headed at
// heads_[ChainHead(q, c)]. A lookup walks the chain for the entry whose parent is q,
// so ChainHead must differ for every c of one q (then a chain holds at most one child
// of any node); beyond that it decides only how long the chains are, never which child
// is found. Each entry passed over costs a cache miss, so the heads are many: 65536
// keep most chains at one entry or none. The next link of a leaf out of the tree is
// followed only for a leaf that a 256-byte match replaced, and that link names the
// replacing leaf. (4096 heads with the plain sum node * 7 + byte * 257 give the same
// output for every input of bench/compress_runs and compress_bench, only slower.)
// Walks are needed only to find a child: a node that leaves its chain or gives its
// place to another finds the link that points at it through its own record.
//
// The node scattered by Fibonacci hashing (the top bits of node times 2^32 / golden
// ratio), plus the byte times an odd number: distinct modulo 2^16 for distinct bytes.
template <unsigned kHeadBits>
unsigned ChainHead(unsigned node, unsigned byte) {
    constexpr unsigned kHeadMask = (1u << kHeadBits) - 1;
    return (((node * 0x9E3779B1u) >> (32 - kHeadBits)) + byte * 0x3B5u) & kHeadMask;
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

MatchFinder::MatchFinder() : window_{}, nodes_{}, heads_{}, root_child_{} {}

// Only the records that the runs since the last reset can have touched are reset:
// leaves below leaf_end_ and internal nodes below node_end_ (beyond it the free list
// still runs n -> n + 1 as the first reset left it). Every chain head and root child
// slot that is not empty points at a node of the tree, whose record names that slot,
// so clearing the slots of those nodes empties them all: a run over a small input
// does not pay for clearing 256 KB of slots.
void MatchFinder::ResetTree() {
    // The slots are cleared before any record is reset: a slot may be the next field
    // of a node that is reset here.
    for (unsigned leaf = kWindowSize; leaf < leaf_end_; ++leaf) {
        if (nodes_[leaf].parent != kNone) *LinkAt(nodes_[leaf].link) = kNone;
    }
    for (unsigned node = 1; node < node_end_; ++node) {
        if (nodes_[node].parent != kNone) *LinkAt(nodes_[node].link) = kNone;
    }
    for (unsigned root = kRootBase; root < kNodeTableSize; ++root) {
        nodes_[root] = Node{};
        nodes_[root].level = 1;
    }
    for (unsigned leaf = kWindowSize; leaf < leaf_end_; ++leaf) nodes_[leaf] = Node{};
    for (unsigned node = 1; node < node_end_; ++node) {
        nodes_[node] = Node{};
        nodes_[node].next = static_cast<std::uint16_t>(node + 1 < kWindowSize ? node + 1 : 0);
    }
    free_node_ = 1;
    leaf_end_ = kWindowSize;
    node_end_ = 1;
}

// The link that points at the child of `node` for `byte`, or the link that ends the
// chain (holding 0) when there is none. A root's children are links of their own.
// Entry 0's parent is set to `node` so that the walk needs no separate test for the
// chain's end.
std::uint16_t* MatchFinder::FindChildLink(unsigned node, unsigned byte) {
    if (node >= kRootBase) return &root_child_[(node - kRootBase) << 8 | byte];
    nodes_[kNone].parent = static_cast<std::uint16_t>(node);
    std::uint16_t* at = &heads_[ChainHead<kHeadBits>(node, byte)];
    for (;;) {
        Node& child = nodes_[*at];
        if (child.parent == node) return at;
        at = &child.next;
    }
}

// Writes of a link's place into the record of "no node" (the successor of a chain's
// last node) go to the sentinel, whose link nothing reads: no branch on the data.
void MatchFinder::PushChild(unsigned node, unsigned byte, unsigned child) {
    std::uint16_t& head = heads_[ChainHead<kHeadBits>(node, byte)];
    Node& link = nodes_[child];
    link.parent = static_cast<std::uint16_t>(node);
    link.next = head;
    nodes_[head].link = LinkOffset(&link.next);
    head = static_cast<std::uint16_t>(child);
    link.link = LinkOffset(&head);
}

// Points `link` (the end of a chain or a root's empty child slot) at `child`.
void MatchFinder::SetLink(std::uint16_t* link, unsigned child) {
    *link = static_cast<std::uint16_t>(child);
    nodes_[child].link = LinkOffset(link);
}

// Takes `child` out of its chain.
void MatchFinder::Unlink(unsigned child) {
    const Node& c = nodes_[child];
    *LinkAt(c.link) = c.next;
    nodes_[c.next].link = c.link;
}

// `new_node` takes the place of `old_node` in its chain.
void MatchFinder::Replace(unsigned old_node, unsigned new_node) {
    const Node& old = nodes_[old_node];
    Node& n = nodes_[new_node];
    n.link = old.link;
    n.next = old.next;
    *LinkAt(n.link) = static_cast<std::uint16_t>(new_node);
    nodes_[n.next].link = LinkOffset(&n.next);
}

// The strings at `old_node` (a child of `parent`) and `pos` part after match_length_
// bytes: a new internal node takes old_node's place with both as its children.
void MatchFinder::Split(unsigned parent, unsigned old_node, unsigned pos) {
    const std::uint8_t* text = window_.data();
    const unsigned node = free_node_;
    Node& n = nodes_[node];
    free_node_ = n.next;
    node_end_ = std::max(node_end_, node + 1);
    n.parent = static_cast<std::uint16_t>(parent);
    Replace(old_node, node);
    n.position = static_cast<std::uint16_t>(pos);
    n.level = static_cast<std::uint8_t>(match_length_);
    n.children = 2;
    PushChild(node, text[match_position_ + match_length_], old_node);
    PushChild(node, text[pos + match_length_], pos);
}

// When the previous match was at least 4 bytes long, the string at pos is known to
// share `length` bytes with the string after the match's source. Finds the deepest
// node on that string's path whose level is below `length` (`parent`) and its child
// on the path (`node`), and hands the current position to the ancestors that the
// descent from there skips: flagged ones directly, the first unflagged internal one
// as pending. False when the source's leaf cannot be found in the tree.
bool MatchFinder::StartBelowLastMatch(unsigned pos, unsigned length, unsigned& parent,
                                      unsigned& node) {
    unsigned r = (match_position_ + 1) | kWindowSize;
    unsigned q;
    // A leaf that a 256-byte match replaced left the tree and names its successor,
    // a newer leaf, so the walk is short; the bound only keeps a broken chain from
    // looping.
    for (unsigned steps = 0; (q = nodes_[r].parent) == kNone; ++steps) {
        r = nodes_[r].next;
        if (r < kWindowSize || steps == kWindowSize) return false;
    }
    while (Level(q) >= length) {
        r = q;
        q = nodes_[q].parent;
    }
    unsigned t = q;
    while (nodes_[t].position & kPassUpFlag) {
        nodes_[t].position = static_cast<std::uint16_t>(pos);
        t = nodes_[t].parent;
    }
    // Roots take no position; their write goes to the scratch record instead of
    // being skipped by a branch that the data would decide.
    nodes_[t < kWindowSize ? t : kScratch].position = static_cast<std::uint16_t>(pos | kPassUpFlag);
    parent = q;
    node = r;
    return true;
}

void MatchFinder::Insert(unsigned pos) {
    leaf_end_ = std::max(leaf_end_, pos + 1);
    const std::uint8_t* text = window_.data();
    Node& leaf = nodes_[pos];
    unsigned q;
    unsigned r;
    std::uint16_t* at;
    unsigned length = match_length_;
    if (length < kShortcutMinLength || !StartBelowLastMatch(pos, --length, q, r)) {
        q = text[pos] + kRootBase;
        at = FindChildLink(q, text[pos + 1]);
        r = *at;
        if (r == kNone) {
            leaf.parent = static_cast<std::uint16_t>(q);
            leaf.next = kNone;
            SetLink(at, pos);
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
            limit = nodes_[r].level;
            candidate = nodes_[r].position & ~unsigned{kPassUpFlag};
        }
        // Positions at or above the current one denote the string one window earlier.
        if (candidate >= pos) candidate -= kWindowSize;
        match_position_ = candidate;
        length = CommonLength(text + pos, text + candidate, length, limit);
        if (length < limit) {
            match_length_ = length;
            Split(q, r, pos);
            return;
        }
        if (length >= kMaxMatch) break;
        nodes_[r].position = static_cast<std::uint16_t>(pos);
        q = r;
        at = FindChildLink(q, text[pos + length]);
        r = *at;
        if (r == kNone) {
            match_length_ = length;
            leaf.parent = static_cast<std::uint16_t>(q);
            leaf.next = kNone;
            SetLink(at, pos);
            ++nodes_[q].children;
            return;
        }
        // The child was found by this byte, so it matches too.
        ++length;
    }

    // A full-length match: the current position takes the old leaf's place, since
    // the newer string matches everything the old one would.
    match_length_ = length;
    Node& old = nodes_[r];
    leaf.parent = static_cast<std::uint16_t>(q);
    Replace(r, pos);
    old.parent = kNone;
    old.next = static_cast<std::uint16_t>(pos);
}

void MatchFinder::Delete(unsigned pos) {
    Node& leaf = nodes_[pos];
    const unsigned r = leaf.parent;
    if (r == kNone) return;
    const std::uint8_t* text = window_.data();
    Node& node = nodes_[r];
    Unlink(pos);
    leaf.parent = kNone;
    if (r >= kRootBase || --node.children > 1) return;

    // r is an internal node with one child left and goes away. Its position (possibly
    // a pending one) passes up through the flagged ancestors: each keeps the newest
    // position seen, counting positions at or above pos as one window older, and the
    // first unflagged internal ancestor receives it as pending.
    unsigned own = node.position & ~unsigned{kPassUpFlag};
    if (own >= pos) own -= kWindowSize;
    unsigned newest = own;
    unsigned q = node.parent;
    unsigned u;
    while ((u = nodes_[q].position) & kPassUpFlag) {
        u &= ~unsigned{kPassUpFlag};
        if (u >= pos) u -= kWindowSize;
        if (u > newest) newest = u;
        nodes_[q].position = static_cast<std::uint16_t>(newest | kWindowSize);
        q = nodes_[q].parent;
    }
    // A root takes no position (see StartBelowLastMatch).
    if (u >= pos) u -= kWindowSize;
    if (u > newest) newest = u;
    nodes_[q < kWindowSize ? q : kScratch].position =
        static_cast<std::uint16_t>(newest | kWindowSize | kPassUpFlag);

    // The remaining child is found by r's own string (its position before the update
    // above), so the byte comes from the old text, not from the lookahead. The child
    // leaves its chain and takes r's place in r's chain.
    const unsigned s = *FindChildLink(r, text[own + node.level]);
    Unlink(s);
    nodes_[s].parent = node.parent;
    Replace(r, s);
    node.parent = kNone;
    node.next = static_cast<std::uint16_t>(free_node_);
    free_node_ = r;
}

// Asks for the cache line at `p` ahead of its use; only a hint, never a change of result.
inline void Prefetch(const void* p) {
#if defined(__GNUC__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

void MatchFinder::Step(unsigned pos) {
    // The next steps' first lookups, started while this one works: the root's child
    // for the string two positions on, the record of the child for the next string,
    // and the parent of the next leaf to be removed. Their lines are then usually in
    // the cache when the search reaches them.
    if (pos + 2 < kPositionLimit) {
        const std::uint8_t* text = window_.data();
        Prefetch(&root_child_[text[pos + 2] << 8 | text[pos + 3]]);
        Prefetch(&nodes_[root_child_[text[pos + 1] << 8 | text[pos + 2]]]);
        Prefetch(&nodes_[nodes_[pos + 1].parent]);
    }
    Delete(pos);
    Insert(pos);
}

}  // namespace fwforge::lzh
