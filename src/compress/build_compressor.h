#pragma once
// A build compresses its modules one run after another through one encoder, whose
// window carries from run to run. BuildCompressor gives every call exactly the bytes
// that encoder would give, but computes a run only once when the same input comes
// again from a window that agrees on every byte the run can read (sizing, then
// placing a module), and computes announced runs ahead on worker threads, each from
// the window it will start with. The announced runs are read and their windows
// predicted in order, as far ahead as a budget of input bytes allows, so that a long
// run does not hold up the runs after it; the build takes over an announced run that no
// worker has started when it asks for it.

#include <condition_variable>
#include <cstddef>
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
    // How many bytes of announced input may be read ahead of the build: the announced
    // runs it has not asked for yet, with their results. Ahead of that, each worker
    // still has two runs.
    std::size_t ahead_bytes = 8u << 20;
};

class BuildCompressor {
  public:
    // An announced run: where its input comes from, and how many calls are expected
    // for that input (a module is compressed to size it and again to place it); the
    // result is forgotten after the last of them.
    struct Expected {
        std::function<std::optional<std::vector<std::uint8_t>>()> load;
        unsigned uses = 1;
        // The input was announced before and is compressed again: a result kept from then
        // that read the same window bytes serves, and nothing is computed for it.
        bool again = false;
    };

    explicit BuildCompressor(CompressorOptions options = {});
    ~BuildCompressor();
    BuildCompressor(const BuildCompressor&) = delete;
    BuildCompressor& operator=(const BuildCompressor&) = delete;

    // Announces the inputs of the next runs, in the order they will be asked for, in
    // place of what is left of an earlier announcement. A loader that gives nothing ends
    // the announcement there. Only a guess: a run asked for in another order, or from
    // another window, is simply computed when asked for. Does nothing without worker
    // threads.
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
    // Whether the next announced run may be read now: no one else reads one, and the
    // runs read ahead of the build are within the budget.
    bool MayPlan() const;
    // Takes the next announced run and reads its input, with the lock released; notes
    // the stale bytes of the window it is predicted to start from, moves the prediction
    // past it, and keeps it to be computed unless nothing needs computing for it. Called
    // with the lock held; a failed read ends the announcement there.
    void PlanNext(std::unique_lock<std::mutex>& lock);
    // A kept run that read this input and these stale bytes, once it is no longer being
    // computed; `computing` is set when it is an announced run that no one has started,
    // which the caller then computes.
    Run* FindReusable(std::span<const std::uint8_t> source, std::span<const std::uint8_t> stale,
                      std::unique_lock<std::mutex>& lock, bool& computing);
    // Counts one use of `run`, and forgets it after its last.
    void Use(Run& run);
    // The build has asked for `run`, or no one ever will: it leaves the runs ahead.
    void LeaveAhead(Run& run);

    CompressorOptions options_;
    Encoder encoder_;  // its window is the window every call sees

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Run>> runs_;
    std::deque<Expected> plan_;             // announced runs no one has read yet
    std::vector<std::uint8_t> predicted_;   // the window the next of them starts from
    bool planning_ = false;                 // a thread is reading the next of them
    unsigned ahead_runs_ = 0;               // announced runs read and not yet asked for
    std::size_t ahead_bytes_ = 0;           // their input bytes
    unsigned computed_ = 0;
    std::vector<std::thread> workers_;
    bool stopping_ = false;
};

}  // namespace fwforge::lzh
