#include "compress/huffman_code.h"

#include <array>
#include <cassert>

namespace fwforge::lzh {
namespace {

// 1-based binary min-heap of symbols and inner nodes, ordered by count.
class CountHeap {
  public:
    explicit CountHeap(std::span<const std::uint32_t> counts) : counts_(counts) {}

    void Push(unsigned node) { heap_[++size_] = static_cast<std::uint16_t>(node); }
    unsigned Size() const { return size_; }
    unsigned Top() const { return heap_[1]; }

    void Heapify() {
        for (unsigned i = size_ / 2; i >= 1; --i) SiftDown(i);
    }
    // Removes the top: the last entry moves up and sinks.
    void Pop() {
        heap_[1] = heap_[size_--];
        SiftDown(1);
    }
    void ReplaceTop(unsigned node) {
        heap_[1] = static_cast<std::uint16_t>(node);
        SiftDown(1);
    }

  private:
    // The right child wins only when the left one is strictly larger, and the entry
    // stops at the first child that is not smaller than it: among equal counts the
    // earlier entries stay on top, which fixes the order of extraction.
    void SiftDown(unsigned i) {
        const unsigned node = heap_[i];
        const std::uint32_t count = counts_[node];
        unsigned child;
        while ((child = 2 * i) <= size_) {
            if (child < size_ && counts_[heap_[child]] > counts_[heap_[child + 1]]) ++child;
            if (count <= counts_[heap_[child]]) break;
            heap_[i] = heap_[child];
            i = child;
        }
        heap_[i] = static_cast<std::uint16_t>(node);
    }

    std::span<const std::uint32_t> counts_;
    std::array<std::uint16_t, kMaxAlphabet + 1> heap_{};
    unsigned size_ = 0;
};

}  // namespace

unsigned BuildHuffmanCode(std::span<std::uint32_t> counts, std::span<std::uint8_t> lengths,
                          std::span<std::uint16_t> codes) {
    const unsigned n = static_cast<unsigned>(lengths.size());
    assert(n <= kMaxAlphabet && codes.size() == n && counts.size() >= 2 * n - 1);

    CountHeap heap(counts);
    for (unsigned i = 0; i < n; ++i) {
        lengths[i] = 0;
        if (counts[i] != 0) heap.Push(i);
    }
    if (heap.Size() < 2) {
        const unsigned only = heap.Size() == 1 ? heap.Top() : 0;
        codes[only] = 0;
        return only;
    }
    heap.Heapify();

    // Merge the two smallest until one entry is left. Leaves are listed in the order
    // they leave the heap; that list later decides which symbols get the long codes.
    std::array<std::uint16_t, kMaxAlphabet> extracted{};
    unsigned extracted_count = 0;
    std::array<std::uint16_t, 2 * kMaxAlphabet> left{}, right{};
    unsigned next_node = n;
    do {
        const unsigned i = heap.Top();
        if (i < n) extracted[extracted_count++] = static_cast<std::uint16_t>(i);
        heap.Pop();
        const unsigned j = heap.Top();
        if (j < n) extracted[extracted_count++] = static_cast<std::uint16_t>(j);
        const unsigned k = next_node++;
        counts[k] = counts[i] + counts[j];
        left[k] = static_cast<std::uint16_t>(i);
        right[k] = static_cast<std::uint16_t>(j);
        heap.ReplaceTop(k);
    } while (heap.Size() > 1);
    const unsigned root = next_node - 1;

    // Leaves per depth, with everything deeper than 16 counted at 16. Inner nodes are
    // numbered after their children, so walking them downwards from the root visits a
    // parent before its children.
    std::array<std::uint8_t, 2 * kMaxAlphabet> depth{};
    std::array<unsigned, kMaxCodeBits + 2> leaves_at{};
    depth[root] = 0;
    for (unsigned k = root + 1; k-- > n;) {
        for (unsigned child : {left[k], right[k]}) {
            const unsigned d = depth[k] + 1u;
            if (child < n) {
                ++leaves_at[d < kMaxCodeBits ? d : kMaxCodeBits];
            } else {
                depth[child] = static_cast<std::uint8_t>(d < 255 ? d : 255);
            }
        }
    }

    // Clamping raised the Kraft sum above 2^16; pull leaves down until it is exact.
    std::uint32_t kraft = 0;
    for (unsigned d = 1; d <= kMaxCodeBits; ++d) kraft += leaves_at[d] << (kMaxCodeBits - d);
    while (kraft != (1u << kMaxCodeBits)) {
        --leaves_at[kMaxCodeBits];
        for (unsigned d = kMaxCodeBits - 1; d > 0; --d) {
            if (leaves_at[d] != 0) {
                --leaves_at[d];
                leaves_at[d + 1] += 2;
                break;
            }
        }
        --kraft;
    }

    // The first symbols extracted (the rarest) take the longest codes.
    unsigned next = 0;
    for (unsigned d = kMaxCodeBits; d > 0; --d) {
        for (unsigned c = leaves_at[d]; c > 0; --c)
            lengths[extracted[next++]] = static_cast<std::uint8_t>(d);
    }

    // Canonical codes: symbols of one length take consecutive codes in symbol order.
    std::array<std::uint16_t, kMaxCodeBits + 2> start{};
    start[1] = 0;
    for (unsigned d = 1; d <= kMaxCodeBits; ++d) {
        start[d + 1] = static_cast<std::uint16_t>((start[d] + leaves_at[d]) << 1);
    }
    for (unsigned i = 0; i < n; ++i) codes[i] = lengths[i] != 0 ? start[lengths[i]]++ : 0;
    return root;
}

}  // namespace fwforge::lzh
