#include "compress/build_compressor.h"

#include <algorithm>
#include <new>
#include <system_error>

#include "compress/encoder_window.h"
#include "compress/lzh_format.h"

namespace fwforge::lzh {

struct BuildCompressor::Run {
    // Waiting: announced and read, not started; Running: being computed, by a worker or
    // by the build.
    enum class State { Waiting, Running, Done, Failed };

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
    bool ahead = false;  // counted among the runs read ahead of the build
};

namespace {

// Announced runs read ahead of the build, per worker, whatever their size: enough to
// keep every core busy when a single run is larger than the byte budget.
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
    ahead_runs_ = 0;
    ahead_bytes_ = 0;
}

void BuildCompressor::Expect(std::vector<Expected> runs) {
    if (options_.threads < 2) return;
    try {
        // The first announced run starts from the real window as it is now.
        const std::span<const std::uint8_t> now = encoder_.Window();
        std::unique_lock lock(mutex_);
        // A run being read belongs to the announcement this one replaces.
        changed_.wait(lock, [this] { return !planning_; });
        predicted_.assign(now.begin(), now.end());
        plan_.clear();
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

bool BuildCompressor::MayPlan() const {
    return !planning_ && !plan_.empty() &&
           (ahead_bytes_ < options_.ahead_bytes || ahead_runs_ < kAheadPerWorker * options_.threads);
}

void BuildCompressor::PlanNext(std::unique_lock<std::mutex>& lock) {
    try {
        Expected next = std::move(plan_.front());
        plan_.pop_front();
        // Read without the lock: the build and the other workers go on meanwhile, and no
        // one else reads or predicts until this run is in place.
        planning_ = true;
        lock.unlock();
        std::optional<std::vector<std::uint8_t>> loaded;
        try {
            loaded = next.load();
        } catch (...) {
            loaded.reset();
        }
        lock.lock();
        planning_ = false;
        changed_.notify_all();
        if (!loaded || TooLarge(loaded->size()) || stopping_) {
            plan_.clear();  // the runs after it would start from another window
            return;
        }
        std::vector<std::uint8_t> input = std::move(*loaded);
        const WindowRange range = StaleReadRange(input.size());
        std::vector<std::uint8_t> stale(predicted_.begin() + range.begin,
                                        predicted_.begin() + range.end);
        ReplayRun(predicted_, input, FullRunSlides(input.size()));
        if (next.again) {
            // A run that reads nothing of earlier runs gives what it gave before.
            if (range.size() == 0) return;
            for (const std::unique_ptr<Run>& run : runs_) {
                if (run->state != Run::State::Failed && run->input.size() == input.size() &&
                    run->stale == stale && run->input == input) {
                    return;
                }
            }
        }
        auto run = std::make_unique<Run>();
        run->stale = std::move(stale);
        run->input = std::move(input);
        run->uses_left = next.uses;
        run->state = Run::State::Waiting;
        run->ahead = true;
        runs_.push_back(std::move(run));
        ++ahead_runs_;
        ahead_bytes_ += runs_.back()->input.size();
    } catch (...) {
        // Out of memory: the rest is computed when it is asked for.
        plan_.clear();
    }
}

void BuildCompressor::Work() {
    std::unique_ptr<Encoder> encoder;
    std::unique_lock lock(mutex_);
    std::vector<std::uint8_t> output;  // room for the longest result so far
    // The longest run read and not started: the build asks in order and takes over what
    // no worker has started, so the long runs, started first, do not end the build on
    // one core.
    auto waiting = [this]() -> Run* {
        Run* longest = nullptr;
        for (const std::unique_ptr<Run>& run : runs_) {
            if (run->state == Run::State::Waiting &&
                (longest == nullptr || run->input.size() > longest->input.size())) {
                longest = run.get();
            }
        }
        return longest;
    };
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || MayPlan() || waiting() != nullptr; });
        if (stopping_) return;
        // Reading comes first: it is quick, and it gives the other threads work.
        if (MayPlan()) {
            PlanNext(lock);
            continue;
        }
        Run* run = waiting();
        run->state = Run::State::Running;
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
            if (output.size() < run->input.size() + kCompressedOverhead) {
                output.resize(run->input.size() + kCompressedOverhead);
            }
            run->result = encoder->CompressModule(run->input, output);
            run->output.assign(output.begin(), output.begin() + run->result.total);
            run->token_buffer = encoder->TokenBufferSize();
        } catch (...) {
            // Out of memory in a worker: the run is computed when it is asked for.
            done = false;
        }

        lock.lock();
        run->state = done ? Run::State::Done : Run::State::Failed;
        if (!done) LeaveAhead(*run);
        changed_.notify_all();
    }
}

BuildCompressor::Run* BuildCompressor::FindReusable(std::span<const std::uint8_t> source,
                                                    std::span<const std::uint8_t> stale,
                                                    std::unique_lock<std::mutex>& lock,
                                                    bool& computing) {
    computing = false;
    // By index: workers add runs while this waits; only the build's thread removes any.
    for (std::size_t i = 0; i < runs_.size(); ++i) {
        Run& run = *runs_[i];
        if (run.state == Run::State::Failed) continue;
        if (run.input.size() != source.size() || !std::ranges::equal(run.stale, stale) ||
            !std::ranges::equal(run.input, source)) {
            continue;
        }
        if (run.state == Run::State::Waiting) {
            // No worker has started it: the build computes it rather than wait.
            run.state = Run::State::Running;
            ++computed_;
            computing = true;
            return &run;
        }
        changed_.wait(lock, [&run] { return run.state != Run::State::Running; });
        if (run.state == Run::State::Done && run.token_buffer == encoder_.TokenBufferSize()) {
            return &run;
        }
    }
    return nullptr;
}

void BuildCompressor::LeaveAhead(Run& run) {
    if (run.asked) return;
    run.asked = true;
    if (run.ahead) {
        run.ahead = false;
        --ahead_runs_;
        ahead_bytes_ -= run.input.size();
    }
    changed_.notify_all();
}

void BuildCompressor::Use(Run& run) {
    LeaveAhead(run);
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
    bool computing = false;
    Run* run = FindReusable(source, stale, lock, computing);
    while (run == nullptr) {
        if (planning_) {
            // The run being read may be this one.
            changed_.wait(lock, [this] { return !planning_; });
        } else if (ahead_runs_ == 0 && !plan_.empty()) {
            // The workers have not read this far: the build reads the next announced run
            // itself, which keeps the prediction going past it.
            PlanNext(lock);
        } else {
            break;
        }
        run = FindReusable(source, stale, lock, computing);
    }
    if (run != nullptr && !computing) {
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
    // an announced run that no worker has started, else a run of its own.
    if (run == nullptr) ++computed_;
    lock.unlock();
    std::unique_ptr<Run> own;
    bool keep = run != nullptr || options_.reuse;
    try {
        if (run == nullptr && keep) {
            own = std::make_unique<Run>();
            own->input.assign(source.begin(), source.end());
            // Before the run, which changes the window.
            own->stale.assign(stale.begin(), stale.end());
            run = own.get();
        }
    } catch (const std::bad_alloc&) {
        own.reset();
        run = nullptr;
        keep = false;  // computed all the same, but not kept
    }
    // An announced run taken here that ends up not kept is given up on for good.
    auto give_up = [&] {
        if (run == nullptr || own) return;
        std::lock_guard relock(mutex_);
        run->state = Run::State::Failed;
        LeaveAhead(*run);
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
