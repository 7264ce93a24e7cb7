#pragma once
// What carries from one compression run to the next: the encoder's window buffer.
// A run resets everything else, so its output is fixed by its input and by the few
// window bytes it reads before (or without) writing them itself. These functions say
// which bytes those are and how a run leaves the window, without running the encoder.

#include <cstddef>
#include <cstdint>
#include <span>

#include "compress/match_finder.h"

namespace fwforge::lzh {

// A range of window positions, [begin, end).
struct WindowRange {
    unsigned begin = 0;
    unsigned end = 0;
    unsigned size() const { return end - begin; }
};

// The window bytes a run over `input_size` bytes can read but does not write first.
//
// The first fill puts the input at 8192; a string inserted at position p is compared
// up to 256 bytes on, and the last position inserted is 8192 + n, so the bytes read
// reach 8192 + n + 255 at most. An input of 8448 bytes or more fills the whole buffer
// from 8192 on before the first comparison, and what a slide moves down or a refill
// leaves standing was written by the run itself: nothing of earlier runs is read.
// A shorter input reads the bytes just past its end. A slide (possible from 8192
// bytes on) moves them down before they are read, but they are still the same bytes
// of the run's starting window.
WindowRange StaleReadRange(std::size_t input_size);

// How often a run over `input_size` bytes slides the window when it is not stopped by
// its output bound: once per 8192 positions advanced, and it advances once per byte.
std::uint32_t FullRunSlides(std::size_t input_size);

// Leaves `window` (kWindowBufferSize bytes) as a run over `input` that slid `slides`
// times leaves the encoder's window: the first fill, then per slide the move down and
// the refill.
void ReplayRun(std::span<std::uint8_t> window, std::span<const std::uint8_t> input,
               std::uint32_t slides);

}  // namespace fwforge::lzh
