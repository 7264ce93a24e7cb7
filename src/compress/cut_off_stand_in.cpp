#include "compress/cut_off_stand_in.h"

#include <algorithm>
#include <array>

#include "compress/huffman_code.h"
#include "compress/lzh_decoder.h"
#include "compress/lzh_format.h"
#include "compress/module_compressor.h"
#include "format/compressed_data_header.h"

namespace fwforge::lzh {
namespace {

using Counts = std::array<std::uint32_t, 2 * kNumLitLen - 1>;
using Lengths = std::array<std::uint8_t, kNumLitLen>;

Lengths LengthsOf(const Counts& counts) {
    Counts work = counts;
    Lengths lengths{};
    std::array<std::uint16_t, kNumLitLen> codes{};
    BuildHuffmanCode(work, lengths, codes);
    return lengths;
}

// A small generator of our own, so that the search is the same on every platform.
struct Steps {
    std::uint32_t state;
    std::uint32_t Below(std::uint32_t n) {
        state = state * 1664525u + 1013904223u;
        return static_cast<std::uint32_t>((static_cast<std::uint64_t>(state >> 8) * n) >> 24);
    }
};

// Literal counts for the lost tokens (all literals, `lost` of them) under which the
// block's literal/length code comes out with exactly the lengths `target`, given the
// counts `known` of the tokens before the cut. A code's lengths follow from the counts
// by the heap's fixed procedure, so they are searched for: each symbol of the code gets
// a share by its length; then single counts move from symbols whose codes came out too
// short to those too long.
std::optional<Counts> LostLiterals(const Counts& known, const Lengths& target, std::uint32_t lost) {
    Counts tail{};
    std::uint32_t used = 0;
    std::uint32_t tokens = lost;
    std::vector<unsigned> coded;  // the literals the code has
    for (unsigned s = 0; s < kNumLitLen; ++s) {
        tokens += known[s];
        if (target[s] == 0 || known[s] != 0) continue;
        if (s >= 256) return std::nullopt;  // a match length that only the lost end held
        tail[s] = 1;
        ++used;
    }
    for (unsigned s = 0; s < 256; ++s) {
        if (target[s] != 0) coded.push_back(s);
    }
    if (used > lost || coded.empty()) return std::nullopt;
    const Counts least = tail;
    // A symbol of length L takes about tokens / 2^L of the block.
    auto want = [&](unsigned s) {
        return static_cast<double>(tokens) / static_cast<double>(1u << target[s]) -
               static_cast<double>(known[s] + tail[s]);
    };
    for (; used < lost; ++used) {
        ++tail[*std::max_element(coded.begin(), coded.end(),
                                 [&](unsigned a, unsigned b) { return want(a) < want(b); })];
    }
    // A count moves from a symbol whose code came out too short to one whose code came
    // out too long, or, when there is no such pair, to or from a symbol picked at random.
    Steps steps{lost};
    for (int round = 0; round < 4000; ++round) {
        Counts all = known;
        for (unsigned s = 0; s < 256; ++s) all[s] += tail[s];
        const Lengths got = LengthsOf(all);
        if (got == target) return tail;
        int more = -1, fewer = -1;
        for (unsigned s : coded) {
            if (got[s] > target[s] && (more < 0 || got[s] - target[s] > got[more] - target[more]))
                more = static_cast<int>(s);
            if (got[s] < target[s] && tail[s] > least[s] &&
                (fewer < 0 || target[s] - got[s] > target[fewer] - got[fewer]))
                fewer = static_cast<int>(s);
        }
        if (more < 0 || fewer < 0) {
            const unsigned from = steps.Below(256), to = steps.Below(256);
            if (more < 0 && target[to] != 0) more = static_cast<int>(to);
            if (fewer < 0 && tail[from] > least[from]) fewer = static_cast<int>(from);
            if (more < 0 || fewer < 0 || more == fewer) continue;
        }
        ++tail[more];
        --tail[fewer];
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> CutOffStandIn(std::span<const std::uint8_t> stored) {
    const CompressedFrame frame = ReadCompressedFrame(stored);
    if (frame.fault != CompressedFrame::Fault::None ||
        frame.total != frame.original + kCompressedOverhead) {
        return std::nullopt;
    }
    // The cut falls anywhere in the stream; the byte that would close it is stream too.
    const auto cut =
        stored.subspan(compressed_data_header::kSize, frame.total - compressed_data_header::kSize);
    Lh5Trace trace;
    if (DecodeLh5(cut, frame.original, nullptr, &trace) || trace.block_token_counts.size() != 1 ||
        trace.lit_len_lengths.size() != kNumLitLen) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> data;
    Counts known{};
    for (const Lh5Token& t : trace.tokens) {
        if (t.length == 0) {
            data.push_back(t.literal);
            ++known[t.literal];
            continue;
        }
        ++known[t.length + kLengthSymbolBias];
        const std::size_t from = data.size() - t.distance;
        for (std::size_t k = 0; k < t.length; ++k) data.push_back(data[from + k]);
    }
    const std::uint32_t lost = frame.original - static_cast<std::uint32_t>(data.size());
    if (lost == 0 || trace.block_token_counts[0] != trace.tokens.size() + lost) return std::nullopt;
    Lengths target{};
    std::copy(trace.lit_len_lengths.begin(), trace.lit_len_lengths.end(), target.begin());
    const std::optional<Counts> tail = LostLiterals(known, target, lost);
    if (!tail) return std::nullopt;

    std::vector<std::uint8_t> literals;
    for (unsigned s = 0; s < 256; ++s)
        literals.insert(literals.end(), (*tail)[s], static_cast<std::uint8_t>(s));
    // The order of the lost literals shows only in the first one, whose code the cut may
    // have begun, and in the matches it may make: each literal is tried first, the rest
    // shuffled, until the encoder cuts the data off at the stored bytes.
    Encoder encoder;
    std::vector<std::uint8_t> out(frame.original + kCompressedOverhead);
    std::vector<std::uint8_t> candidate = data;
    Steps steps{frame.original};
    for (int attempt = 0; attempt < 512; ++attempt) {
        std::vector<std::uint8_t> order = literals;
        for (std::size_t i = order.size(); i > 1; --i) {
            std::swap(order[i - 1], order[steps.Below(static_cast<std::uint32_t>(i))]);
        }
        std::swap(order[0], order[static_cast<std::size_t>(attempt) % order.size()]);
        candidate.resize(data.size());
        candidate.insert(candidate.end(), order.begin(), order.end());
        const CompressResult result = encoder.CompressModule(candidate, out);
        if (result.stopped && result.total == frame.total &&
            std::equal(out.begin(), out.begin() + frame.total, stored.begin())) {
            return candidate;
        }
    }
    return std::nullopt;
}

}  // namespace fwforge::lzh
