#pragma once
// A build compresses its modules one run after another through one encoder, whose
// window carries from run to run. BuildCompressor gives every call exactly the bytes
// that encoder would give, but computes a run only once when the same input comes
// again from a window that agrees on every byte the run can read (sizing, then
// placing a module), and computes announced runs ahead on worker threads, each from
// the window it will start with.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "compress/module_compressor.h"

namespace fwforge::lzh {

struct CompressorOptions {
    unsigned threads = 1;  // worker threads for announced runs; below 2, none
    bool reuse = true;     // keep each result for later runs over the same input
    // The limits of the build's encoder (tests make its allocations fail with them); the
    // workers' encoders have none, for a result of theirs only counts when it equals
    // what the build's encoder gives.
    EncoderLimits limits;
};

class BuildCompressor {
  public:
    // An announced run: where its input comes from, and how many calls are expected
    // for that input (a module is compressed to size it and again to place it); the
    // result is forgotten after the last of them.
    struct Expected {
        std::function<std::optional<std::vector<std::uint8_t>>()> load;
        unsigned uses = 1;
    };

    explicit BuildCompressor(CompressorOptions options = {});
    ~BuildCompressor();
    BuildCompressor(const BuildCompressor&) = delete;
    BuildCompressor& operator=(const BuildCompressor&) = delete;

    // Announces the inputs of the next runs, in the order they will be asked for. A
    // loader that gives nothing ends the announcement there. Only a guess: a run asked
    // for in another order, or from another window, is simply computed when asked for.
    // Does nothing without worker threads.
    void Expect(std::vector<Expected> runs);

    // The result Encoder::CompressModule gives for this call when every call of the
    // build goes to one encoder in turn; writes the same destination bytes.
    CompressResult CompressModule(std::span<const std::uint8_t> source,
                                  std::span<std::uint8_t> destination);

    // Stops the workers and forgets every result kept; later calls still work.
    void Release();

    // How many runs were computed so far, here and on the workers: once per distinct
    // run when everything goes as announced.
    unsigned RunsComputed();

  private:
    struct Run;

    void StartWorkers();
    void StopWorkers();
    void Work();
    // Takes the next announced run with its input (loaded, or `given` when the build
    // asks for it before a worker took it), notes the stale bytes of the window it is
    // predicted to start from and moves the prediction past it. With the lock held;
    // null when the announcement ends there.
    Run* PlanNext(const std::span<const std::uint8_t>* given);
    Run* FindReusable(std::span<const std::uint8_t> source, std::span<const std::uint8_t> stale,
                      std::unique_lock<std::mutex>& lock);
    // Counts one use of `run`, and forgets it after its last.
    void Use(Run& run);

    CompressorOptions options_;
    Encoder encoder_;  // its window is the window every call sees

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Run>> runs_;
    std::deque<Expected> plan_;             // announced runs no one has taken yet
    std::vector<std::uint8_t> predicted_;   // the window the next of them starts from
    unsigned unasked_ = 0;                  // runs computed ahead and not yet asked for
    unsigned computed_ = 0;
    std::vector<std::thread> workers_;
    bool stopping_ = false;
};

}  // namespace fwforge::lzh
