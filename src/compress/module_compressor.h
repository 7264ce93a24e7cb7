#pragma once
// Module compression: a module's bytes become a CompressedDataHeader, an lh5 bit
// stream and a closing 0x00.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <span>

namespace fwforge::lzh {

struct CompressResult {
    std::uint32_t total = 0;     // bit-stream bytes + 9, as stored at offset 0
    std::uint32_t consumed = 0;  // input bytes consumed, as stored at offset 4
    bool stopped = false;        // the output bound cut the stream off
    std::uint32_t slides = 0;    // how often the window slid
};

// The encoder ran out of memory: the program prints "Out of memory." to standard
// error and exits with status 1, bypassing the diagnostics.
class OutOfMemory : public std::exception {
  public:
    const char* what() const noexcept override { return "Out of memory."; }
};

// What the encoder allocates: its working storage (window and search tree) once, and
// its token buffer, tried at smaller sizes after each failure.
enum class EncoderAllocation { WorkingStorage, TokenBuffer };

// Asked before each allocation of the encoder with what it is for and its size in
// bytes; false makes that allocation fail as on a machine short of memory.
using AllocationHook = std::function<bool(EncoderAllocation what, std::size_t bytes)>;

// Limits that make the encoder's allocations fail as on a machine short of memory;
// the defaults impose none. Tests use them to reach the smaller token buffers and the
// encoder's "Out of memory." stop.
struct EncoderLimits {
    // The largest token buffer that may be allocated.
    std::size_t token_buffer_limit = std::numeric_limits<std::size_t>::max();
    // The window and tree cannot be allocated at all.
    bool fail_working_storage = false;
    // Asked before each allocation; none by default.
    AllocationHook allocate;
};

// One encoder lives as long as a build. Its window is zero when created and is not
// cleared between runs, which decides exact bytes of later results.
class Encoder {
  public:
    Encoder();
    explicit Encoder(EncoderLimits limits);
    ~Encoder();
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    // `destination` must have room for source.size() + 9 bytes (std::invalid_argument
    // otherwise, and for inputs whose size does not fit the 32-bit header fields).
    // Throws OutOfMemory when the working storage cannot be allocated.
    CompressResult CompressModule(std::span<const std::uint8_t> source,
                                  std::span<std::uint8_t> destination);

    // The token buffer size the first run settled on; 0 before it.
    std::size_t TokenBufferSize() const;

    // The window buffer that carries from run to run (see compress/encoder_window.h).
    // Allocates the working storage like a first run (OutOfMemory when that fails).
    std::span<std::uint8_t> Window();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace fwforge::lzh
