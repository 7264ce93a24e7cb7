#include "compress/build_compressor.h"

#include <algorithm>
#include <new>
#include <system_error>

#include "compress/encoder_window.h"
#include "compress/lzh_format.h"

namespace fwforge::lzh {

struct BuildCompressor::Run {
    enum class State { Running, Done, Failed };

    std::vector<std::uint8_t> input;
    // The bytes of StaleReadRange(input.size()) in the window the run starts from:
    // with the input, all that decides its result.
    std::vector<std::uint8_t> stale;
    std::vector<std::uint8_t> output;  // the result.total bytes the run writes
    CompressResult result;
    std::size_t token_buffer = 0;  // block cuts depend on it
    State state = State::Running;
    unsigned uses_left = 1;
    bool asked = false;  // the build has asked for it once
};

namespace {

// How many announced runs the workers compute ahead of the build, per worker: enough
// to keep every core busy, few enough that memory stays near the image's size.
constexpr unsigned kAheadPerWorker = 2;

bool TooLarge(std::size_t size) { return size > std::uint32_t(-1) - kCompressedOverhead; }

}  // namespace

BuildCompressor::BuildCompressor(CompressorOptions options)
    : options_(options), encoder_(options.limits) {}

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
        plan_.clear();
    }
    changed_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    workers_.clear();
}

unsigned BuildCompressor::RunsComputed() {
    std::lock_guard lock(mutex_);
    return computed_;
}

void BuildCompressor::Release() {
    StopWorkers();
    std::lock_guard lock(mutex_);
    runs_.clear();
    unasked_ = 0;
}

void BuildCompressor::Expect(std::vector<Expected> runs) {
    if (options_.threads < 2) return;
    try {
        // The first announced run starts from the real window as it is now.
        const std::span<const std::uint8_t> now = encoder_.Window();
        std::lock_guard lock(mutex_);
        predicted_.assign(now.begin(), now.end());
        for (Expected& expected : runs) plan_.push_back(std::move(expected));
    } catch (const std::bad_alloc&) {
        return;  // announcing is only a guess; every run is computed when asked for
    } catch (const OutOfMemory&) {
        return;
    }
    try {
        StartWorkers();
    } catch (const std::system_error&) {
        StopWorkers();  // no threads to be had: every run is computed when asked for
        return;
    }
    changed_.notify_all();
}

BuildCompressor::Run* BuildCompressor::PlanNext(const std::span<const std::uint8_t>* given) {
    try {
        Expected next = std::move(plan_.front());
        plan_.pop_front();
        std::vector<std::uint8_t> input;
        if (given != nullptr) {
            input.assign(given->begin(), given->end());
        } else {
            std::optional<std::vector<std::uint8_t>> loaded = next.load();
            if (!loaded || TooLarge(loaded->size())) {
                plan_.clear();  // the runs after it would start from another window
                return nullptr;
            }
            input = std::move(*loaded);
        }
        auto run = std::make_unique<Run>();
        const WindowRange range = StaleReadRange(input.size());
        run->stale.assign(predicted_.begin() + range.begin, predicted_.begin() + range.end);
        ReplayRun(predicted_, input, FullRunSlides(input.size()));
        run->input = std::move(input);
        run->uses_left = next.uses;
        runs_.push_back(std::move(run));
        return runs_.back().get();
    } catch (...) {
        // Out of memory, or a loader that failed otherwise: the rest is computed when
        // it is asked for.
        plan_.clear();
        return nullptr;
    }
}

void BuildCompressor::Work() {
    std::unique_ptr<Encoder> encoder;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] {
            return stopping_ || (!plan_.empty() && unasked_ < kAheadPerWorker * options_.threads);
        });
        if (stopping_) return;
        // Inputs are read here, one at a time and in order, as the prediction needs.
        Run* run = PlanNext(nullptr);
        if (run == nullptr) continue;
        ++unasked_;
        ++computed_;
        lock.unlock();

        bool done = true;
        try {
            if (!encoder) encoder = std::make_unique<Encoder>();
            // Only the stale bytes of the worker's window matter: the run writes every
            // other byte it reads before it reads it.
            const WindowRange range = StaleReadRange(run->input.size());
            std::copy(run->stale.begin(), run->stale.end(),
                      encoder->Window().begin() + range.begin);
            run->output.resize(run->input.size() + kCompressedOverhead);
            run->result = encoder->CompressModule(run->input, run->output);
            run->output.resize(run->result.total);
            run->output.shrink_to_fit();
            run->token_buffer = encoder->TokenBufferSize();
        } catch (...) {
            // Out of memory in a worker: the run is computed when it is asked for.
            done = false;
        }

        lock.lock();
        run->state = done ? Run::State::Done : Run::State::Failed;
        if (!done) --unasked_;
        changed_.notify_all();
    }
}

BuildCompressor::Run* BuildCompressor::FindReusable(std::span<const std::uint8_t> source,
                                                    std::span<const std::uint8_t> stale,
                                                    std::unique_lock<std::mutex>& lock) {
    // By index: workers add runs while this waits; only the build's thread removes any.
    for (std::size_t i = 0; i < runs_.size(); ++i) {
        Run& run = *runs_[i];
        if (run.state == Run::State::Failed) continue;
        if (run.input.size() != source.size() || !std::ranges::equal(run.stale, stale) ||
            !std::ranges::equal(run.input, source)) {
            continue;
        }
        changed_.wait(lock, [&run] { return run.state != Run::State::Running; });
        if (run.state == Run::State::Done && run.token_buffer == encoder_.TokenBufferSize()) {
            return &run;
        }
    }
    return nullptr;
}

void BuildCompressor::Use(Run& run) {
    if (!run.asked) {
        run.asked = true;
        if (unasked_ != 0) --unasked_;
        changed_.notify_all();
    }
    if (--run.uses_left != 0 && options_.reuse) return;
    std::erase_if(runs_, [&run](const std::unique_ptr<Run>& r) { return r.get() == &run; });
}

CompressResult BuildCompressor::CompressModule(std::span<const std::uint8_t> source,
                                               std::span<std::uint8_t> destination) {
    // Like a first run, this allocates the working storage (OutOfMemory when it fails).
    const std::span<std::uint8_t> window = encoder_.Window();
    if (TooLarge(source.size()) || destination.size() < source.size() + kCompressedOverhead) {
        return encoder_.CompressModule(source, destination);  // refuses as it always does
    }
    const WindowRange range = StaleReadRange(source.size());
    const std::span<const std::uint8_t> stale = window.subspan(range.begin, range.size());

    std::unique_lock lock(mutex_);
    if (Run* run = FindReusable(source, stale, lock)) {
        // The run read the same input and the same stale bytes, so it wrote these bytes;
        // the window goes on as that run left it.
        std::copy(run->output.begin(), run->output.end(), destination.begin());
        const CompressResult result = run->result;
        Use(*run);
        lock.unlock();
        ReplayRun(window, source, result.slides);
        return result;
    }

    // Computed here, from the real window, and kept for later calls over the same input:
    // in the announced run it is when the workers have not got this far (taking it keeps
    // the prediction going past it), else in a run of its own.
    Run* run = nullptr;
    if (!plan_.empty()) {
        run = PlanNext(&source);
        if (run != nullptr) run->asked = true;
    }
    ++computed_;
    lock.unlock();
    std::unique_ptr<Run> own;
    bool keep = run != nullptr || options_.reuse;
    try {
        if (run == nullptr && keep) {
            own = std::make_unique<Run>();
            own->input.assign(source.begin(), source.end());
            run = own.get();
        }
        // Before the run, which changes the window.
        if (keep) run->stale.assign(stale.begin(), stale.end());
    } catch (const std::bad_alloc&) {
        keep = false;  // computed all the same, but not kept
    }
    // An announced run taken here that ends up not kept is given up on for good.
    auto give_up = [&] {
        if (run == nullptr || own) return;
        std::lock_guard relock(mutex_);
        run->state = Run::State::Failed;
        changed_.notify_all();
    };

    CompressResult result;
    try {
        result = encoder_.CompressModule(source, destination);
    } catch (...) {
        give_up();
        throw;
    }
    try {
        if (keep) run->output.assign(destination.begin(), destination.begin() + result.total);
    } catch (const std::bad_alloc&) {
        keep = false;
    }
    if (!keep) {
        give_up();
        return result;
    }
    run->result = result;
    run->token_buffer = encoder_.TokenBufferSize();
    lock.lock();
    run->state = Run::State::Done;
    changed_.notify_all();
    if (own) {
        runs_.push_back(std::move(own));
    } else {
        Use(*run);
    }
    return result;
}

}  // namespace fwforge::lzh
