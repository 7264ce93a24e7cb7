#include "compress/build_compressor.h"

#include <algorithm>
#include <new>

#include "compress/encoder_window.h"
#include "compress/lzh_format.h"

namespace fwforge::lzh {

struct BuildCompressor::Run {
    enum class State { Waiting, Running, Done, Failed };

    std::vector<std::uint8_t> input;
    // The bytes of StaleReadRange(input.size()) in the window the run starts from:
    // with the input, all that decides its result.
    std::vector<std::uint8_t> stale;
    std::vector<std::uint8_t> output;  // the result.total bytes the run writes
    CompressResult result;
    std::size_t token_buffer = 0;  // block cuts depend on it
    State state = State::Waiting;
    unsigned uses_left = 1;
};

BuildCompressor::BuildCompressor(CompressorOptions options) : options_(options) {}

BuildCompressor::~BuildCompressor() { StopWorkers(); }

void BuildCompressor::StartWorkers() {
    if (!workers_.empty()) return;
    stopping_ = false;
    for (unsigned i = 0; i < options_.threads; ++i) workers_.emplace_back([this] { Work(); });
}

void BuildCompressor::StopWorkers() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        queue_.clear();
    }
    changed_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    workers_.clear();
}

void BuildCompressor::Release() {
    StopWorkers();
    std::lock_guard lock(mutex_);
    runs_.clear();
}

void BuildCompressor::Expect(std::vector<Expected> runs) {
    if (options_.threads < 2) return;
    try {
        // The window each run will start from, if the calls come as announced: the
        // real window now, then as each run before it leaves it.
        const std::span<const std::uint8_t> now = encoder_.Window();
        std::vector<std::uint8_t> window(now.begin(), now.end());
        StartWorkers();
        for (Expected& expected : runs) {
            std::optional<std::vector<std::uint8_t>> input = expected.load();
            if (!input || input->size() > std::uint32_t(-1) - kCompressedOverhead) return;
            auto run = std::make_unique<Run>();
            const WindowRange range = StaleReadRange(input->size());
            run->stale.assign(window.begin() + range.begin, window.begin() + range.end);
            ReplayRun(window, *input, FullRunSlides(input->size()));
            run->input = std::move(*input);
            run->uses_left = expected.uses;
            {
                std::lock_guard lock(mutex_);
                queue_.push_back(run.get());
                runs_.push_back(std::move(run));
            }
            changed_.notify_one();
        }
    } catch (const std::bad_alloc&) {
        // Announcing is only a guess; the runs not announced are computed when asked for.
    } catch (const OutOfMemory&) {
    }
}

void BuildCompressor::Work() {
    std::unique_ptr<Encoder> encoder;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        Run& run = *queue_.front();
        queue_.pop_front();
        run.state = Run::State::Running;
        lock.unlock();

        bool done = true;
        try {
            if (!encoder) encoder = std::make_unique<Encoder>();
            // Only the stale bytes of the worker's window matter: the run writes every
            // other byte it reads before it reads it.
            const WindowRange range = StaleReadRange(run.input.size());
            std::copy(run.stale.begin(), run.stale.end(), encoder->Window().begin() + range.begin);
            run.output.resize(run.input.size() + kCompressedOverhead);
            run.result = encoder->CompressModule(run.input, run.output);
            run.output.resize(run.result.total);
            run.output.shrink_to_fit();
            run.token_buffer = encoder->TokenBufferSize();
        } catch (...) {
            // Out of memory in a worker: the run is computed when it is asked for.
            done = false;
        }

        lock.lock();
        run.state = done ? Run::State::Done : Run::State::Failed;
        changed_.notify_all();
    }
}

BuildCompressor::Run* BuildCompressor::FindReusable(std::span<const std::uint8_t> source,
                                                    std::span<const std::uint8_t> stale,
                                                    std::unique_lock<std::mutex>& lock) {
    for (const std::unique_ptr<Run>& owned : runs_) {
        Run& run = *owned;
        if (run.state == Run::State::Failed || run.uses_left == 0) continue;
        if (run.input.size() != source.size() || !std::ranges::equal(run.stale, stale) ||
            !std::ranges::equal(run.input, source)) {
            continue;
        }
        if (run.state == Run::State::Running) {
            changed_.wait(lock, [&run] {
                return run.state == Run::State::Done || run.state == Run::State::Failed;
            });
        }
        if (run.state == Run::State::Failed) continue;
        if (run.state == Run::State::Done && run.token_buffer != encoder_.TokenBufferSize()) {
            continue;
        }
        return &run;
    }
    return nullptr;
}

void BuildCompressor::Use(Run& run) {
    if (--run.uses_left != 0 && options_.reuse) return;
    run.uses_left = 0;
    std::erase_if(runs_, [&run](const std::unique_ptr<Run>& r) { return r.get() == &run; });
}

CompressResult BuildCompressor::CompressModule(std::span<const std::uint8_t> source,
                                               std::span<std::uint8_t> destination) {
    // Like a first run, this allocates the working storage (OutOfMemory when it fails).
    const std::span<std::uint8_t> window = encoder_.Window();
    if (source.size() > std::uint32_t(-1) - kCompressedOverhead ||
        destination.size() < source.size() + kCompressedOverhead) {
        return encoder_.CompressModule(source, destination);  // refuses as it always does
    }
    const WindowRange range = StaleReadRange(source.size());
    const std::span<const std::uint8_t> stale = window.subspan(range.begin, range.size());

    std::unique_lock lock(mutex_);
    if (Run* run = FindReusable(source, stale, lock)) {
        if (run->state == Run::State::Waiting) {
            // No worker has started it, and the build's own encoder is idle.
            std::erase(queue_, run);
            run->state = Run::State::Running;
            lock.unlock();
            CompressResult result;
            try {
                result = encoder_.CompressModule(run->input, destination);
            } catch (...) {
                lock.lock();
                run->state = Run::State::Failed;
                changed_.notify_all();
                throw;
            }
            bool kept = true;
            try {
                run->output.assign(destination.begin(), destination.begin() + result.total);
            } catch (const std::bad_alloc&) {
                kept = false;
            }
            run->result = result;
            run->token_buffer = encoder_.TokenBufferSize();
            lock.lock();
            run->state = kept ? Run::State::Done : Run::State::Failed;
            changed_.notify_all();
            if (kept) Use(*run);
            return result;
        }
        // The run read the same input and the same stale bytes, so it wrote these bytes;
        // the window goes on as that run left it.
        std::copy(run->output.begin(), run->output.end(), destination.begin());
        const CompressResult result = run->result;
        Use(*run);
        lock.unlock();
        ReplayRun(window, source, result.slides);
        return result;
    }
    lock.unlock();

    if (!options_.reuse) return encoder_.CompressModule(source, destination);
    std::unique_ptr<Run> run;
    try {
        run = std::make_unique<Run>();
        run->stale.assign(stale.begin(), stale.end());
        run->input.assign(source.begin(), source.end());
    } catch (const std::bad_alloc&) {
        return encoder_.CompressModule(source, destination);  // not kept, then
    }
    const CompressResult result = encoder_.CompressModule(source, destination);
    try {
        run->result = result;
        run->output.assign(destination.begin(), destination.begin() + result.total);
        run->token_buffer = encoder_.TokenBufferSize();
        run->state = Run::State::Done;
        lock.lock();
        runs_.push_back(std::move(run));
    } catch (const std::bad_alloc&) {
    }
    return result;
}

}  // namespace fwforge::lzh
