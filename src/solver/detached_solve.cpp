// A direct solve that a cancelled job can walk away from. A factorisation can't be interrupted
// from outside (MUMPS and CHOLMOD have no hook for it), and on a 12 MP image it runs for several
// seconds; a host's Cancel has to answer within one. So while a cancel flag is installed the solve
// runs on a thread of its own, on memory it owns, and the job's thread only waits for it.
#include <xmmintrin.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <initializer_list>
#include <list>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"
#include "solver/direct_backends.h"
#include "solver/direct_solver.h"

namespace qx {
namespace detail {

SystemArrays::~SystemArrays() {
    std::free(a);
    std::free(ia);
    std::free(ja);
}

namespace {

std::atomic<int> running{0};

// How often the waiting thread looks at the cancel flag between the solver's reports.
constexpr auto kPoll = std::chrono::milliseconds(10);

// A solve also runs on a thread of its own, without a cancel flag, when the thread's progress
// listener would otherwise hear nothing for a noticeable part of the job: a solve of this many
// unknowns takes about 0.2 s (1 s between kicks). Inside a job laid out in spans (the tri-map
// job) the solve is a stage of its own; between kicks (the keep-cut engine's tiles) the kicks
// come often and only a long solve leaves a gap.
constexpr int kWatchedInSpan = 30000;
constexpr int kWatchedBetweenKicks = 200000;

// What a phase of the solve is expected to take, from what is known when it starts: the
// analysis from the order of the system, the factorisation from the analysis's estimate of its
// flops, the solve from the factor's entries, read once for the solve and once for each
// refinement step. The rates start as measured on matting systems on 2 cores and then follow
// the solves of the process (halfway, in proportion, to each phase's rate once it has run for
// a twentieth of a second), so that they fit the machine. They only shape the listener's
// progress.
struct Rates {
    std::atomic<double> analysisSecondsPerUnknown{1.2e-6};
    std::atomic<double> flopsPerSecond{6.5e9};
    std::atomic<double> entriesPerSecond{2.5e8};
};
Rates& rates() {
    static Rates r;
    return r;
}
constexpr double kLearnAfterSeconds = 0.05;
// Before the analysis has run: the factor of a matting system of n unknowns takes about
// 18 n^1.5 flops and has about 100 n entries.
constexpr double kFlopsPerUnknown15 = 18.0;
constexpr double kEntriesPerUnknown = 100.0;

void learn(std::atomic<double>& rate, double seen) {
    if (!(seen > 0.0) || !std::isfinite(seen)) return;
    rate.store(std::sqrt(rate.load(std::memory_order_relaxed) * seen), std::memory_order_relaxed);
}

// The part of a phase done after `r` of its expected time: in proportion up to three quarters,
// then closing in on the end without reaching it (as 1/r, at the same slope where the two
// meet), so that a phase that overruns its estimate still moves: 0.96 at twice the estimate,
// 0.98 at four times.
double phasePart(double r) {
    return r <= 0.75 ? std::max(r, 0.0) : 1.0 - 0.0625 / (r - 0.5);
}

// The job's thread, waiting for the solve, tells the thread's progress listener how far the
// solve has got: the phase in hand's elapsed time against its expected time. Inside a span the
// three phases are stages of it, weighed by their expected times; between kicks, each is a part
// of the step its kick ends.
class SolveWatch {
public:
    SolveWatch(const DirectSolveOptions& o, int n)
        : n_(n), passes_(1 + std::max(o.refinementSteps, 0)),
          afterAnalysis_(o.kickAfterAnalysis), start_(Clock::now()) {
        Rates& r = rates();
        expected_[0] = n * r.analysisSecondsPerUnknown.load(std::memory_order_relaxed);
        expect(kFlopsPerUnknown15 * std::pow(double(n), 1.5), kEntriesPerUnknown * n);
        parts_.emplace(std::initializer_list<double>{expected_[0], expected_[1], expected_[2]});
    }

    // Called as the solve has finished `phases` of its three phases, with its statistics so far.
    void update(int phases, const DirectSolveStats& sofar) {
        const Clock::time_point now = Clock::now();
        if (phases > phase_) {
            const double took = std::chrono::duration<double>(now - start_).count();
            if (phases == phase_ + 1 && took >= kLearnAfterSeconds) learnFrom(took);
            if (phase_ == 0 && sofar.factorFlops > 0.0) {
                expect(sofar.factorFlops, sofar.factorEntries);
                parts_->weigh(1, expected_[1]);
                parts_->weigh(2, expected_[2]);
            }
            for (; phase_ < phases && phase_ < 3; ++phase_) parts_->next();
            start_ = now;
        }
        if (phase_ >= 3) return;
        // Between kicks without one after the analysis, the analysis shares its step with the
        // factorisation: only the factorisation is told.
        if (phase_ == 0 && !afterAnalysis_ && !progressSpanOpen()) return;
        const double elapsed = std::chrono::duration<double>(now - start_).count();
        progressWithin(phasePart(expected_[phase_] > 0.0 ? elapsed / expected_[phase_] : 1.0));
    }

private:
    using Clock = std::chrono::steady_clock;

    void expect(double flops, double entries) {
        Rates& r = rates();
        expected_[1] = flops / r.flopsPerSecond.load(std::memory_order_relaxed);
        expected_[2] = entries * passes_ / r.entriesPerSecond.load(std::memory_order_relaxed);
        entries_ = entries;
        flops_ = flops;
    }

    void learnFrom(double took) {
        Rates& r = rates();
        if (phase_ == 0) learn(r.analysisSecondsPerUnknown, took / n_);
        if (phase_ == 1) learn(r.flopsPerSecond, flops_ / took);
        if (phase_ == 2) learn(r.entriesPerSecond, entries_ * passes_ / took);
    }

    int n_, passes_;
    bool afterAnalysis_;
    int phase_ = 0;  // phases finished
    Clock::time_point start_;  // when the phase in hand began, as the job's thread saw it
    double expected_[3] = {};
    double flops_ = 0.0, entries_ = 0.0;
    std::optional<ProgressParts> parts_;
};

// Everything a solve on its own thread reads and writes: shared by the worker and the caller,
// freed by whichever lets go last.
struct Detached {
    DirectSolveOptions options;
    int n = 0, nrhs = 0, mtype = 0;
    std::shared_ptr<const SystemArrays> system;
    std::vector<float> b, x;
    unsigned mxcsr = 0;

    DirectSolveStats stats;
    int result = 0;
    std::exception_ptr error;

    std::mutex lock;
    std::condition_variable changed;
    int kicks = 0;  // phase kicks the solve has made
    int phases = 0;  // phases it has finished, and its statistics then
    DirectSolveStats sofar;
    bool done = false;
};

void run(const std::shared_ptr<Detached>& d) {
    // The caller's flush-to-zero and denormal modes: the same bits as on its own thread.
    _mm_setcsr(d->mxcsr);
    int result = 0;
    std::exception_ptr error;
    try {
        result = directSolve(d->options, d->n, d->system->a, d->system->ia, d->system->ja,
                             d->b.data(), d->x.empty() ? nullptr : d->x.data(), d->nrhs, d->mtype,
                             &d->stats);
    } catch (...) {
        error = std::current_exception();
    }
    std::lock_guard<std::mutex> g(d->lock);
    --running;
    d->result = result;
    d->error = error;
    d->done = true;
    d->changed.notify_all();
}

void countKick(void* param) {
    auto* d = static_cast<Detached*>(param);
    std::lock_guard<std::mutex> g(d->lock);
    ++d->kicks;
    d->changed.notify_all();
}

void notePhase(void* param, int phase, const DirectSolveStats& sofar) {
    auto* d = static_cast<Detached*>(param);
    std::lock_guard<std::mutex> g(d->lock);
    d->phases = phase;
    d->sofar = sofar;
    d->changed.notify_all();
}

// The threads of solves whose jobs stopped waiting. Each is joined once it has finished (when the
// next one is left behind) and all of them when the library is unloaded or the process exits, so
// no solver thread ever runs code that has been unmapped.
class LeftBehind {
public:
    ~LeftBehind() {
        std::list<Entry> all;
        {
            std::lock_guard<std::mutex> g(lock_);
            all.swap(threads_);
        }
        for (Entry& e : all) e.thread.join();
    }

    void add(std::thread t, std::shared_ptr<Detached> d) {
        std::list<Entry> finished;
        {
            std::lock_guard<std::mutex> g(lock_);
            for (auto it = threads_.begin(); it != threads_.end();) {
                auto next = std::next(it);
                if (isDone(*it->solve)) finished.splice(finished.end(), threads_, it);
                it = next;
            }
            threads_.push_back({std::move(t), std::move(d)});
        }
        for (Entry& e : finished) e.thread.join();
    }

private:
    struct Entry {
        std::thread thread;
        std::shared_ptr<Detached> solve;
    };
    static bool isDone(Detached& d) {
        std::lock_guard<std::mutex> g(d.lock);
        return d.done;
    }
    std::mutex lock_;
    std::list<Entry> threads_;
};

LeftBehind& leftBehind() {
    static LeftBehind threads;
    return threads;
}

// The worker's thread, handed to leftBehind() if the caller leaves before it has finished.
struct WorkerThread {
    std::thread thread;
    std::shared_ptr<Detached> solve;
    ~WorkerThread() {
        if (thread.joinable()) leftBehind().add(std::move(thread), std::move(solve));
    }
};

}  // namespace

int runningDetachedSolves() { return running.load(); }

int directSolveOwned(const DirectSolveOptions& options, int n,
                     std::shared_ptr<const SystemArrays> system, float* b, float* x, int nrhs,
                     int mtype, DirectSolveStats* stats) {
    const bool watched =
        progressListening() && n >= (progressSpanOpen() ? kWatchedInSpan : kWatchedBetweenKicks);
    if (!system || (cancelFlag() == nullptr && !watched) || n < 1 || nrhs < 1 || b == nullptr)
        return directSolve(options, n, system ? system->a : nullptr, system ? system->ia : nullptr,
                           system ? system->ja : nullptr, b, x, nrhs, mtype, stats);
    checkCancel();
    // The caller's idle OpenMP workers are released as they would be for a solve on its thread.
    std::optional<QuietThreads> quiet;
    if (options.quietThreads) quiet.emplace();

    auto d = std::make_shared<Detached>();
    const size_t values = size_t(n) * size_t(nrhs);
    try {
        d->b.assign(b, b + values);
        if (!options.solutionInB) d->x.resize(values);
    } catch (const std::bad_alloc&) {
        if (!options.memoryPath) fail(Fault::SolverAnalysis);
        return 0;
    }
    d->options = options;
    d->options.kick = countKick;
    d->options.reached = notePhase;
    d->options.kickParam = d.get();
    d->n = n;
    d->nrhs = nrhs;
    d->mtype = mtype;
    d->system = std::move(system);
    d->mxcsr = _mm_getcsr();

    WorkerThread worker;
    try {
        ++running;
        worker.thread = std::thread(run, d);
        worker.solve = d;
    } catch (const std::system_error&) {
        --running;
        // No thread to be had: the solve runs here, uninterruptible as before.
        d->options.kick = options.kick;
        d->options.reached = options.reached;
        d->options.kickParam = options.kickParam;
        return directSolve(d->options, n, d->system->a, d->system->ia, d->system->ja, b, x, nrhs,
                           mtype, stats);
    }

    // Kicks are made here, on the job's thread, in the order the solve reports them; any of them
    // may end the job (a set flag), which leaves the worker to finish alone. Between them the
    // listener hears how far the phase in hand has got.
    std::optional<SolveWatch> watch;
    if (progressListening()) watch.emplace(options, n);
    int relayed = 0, phases = 0;
    std::unique_lock<std::mutex> g(d->lock);
    for (;;) {
        d->changed.wait_for(g, kPoll,
                            [&] { return d->done || d->kicks > relayed || d->phases > phases; });
        while (relayed < d->kicks) {
            ++relayed;
            g.unlock();
            if (options.kick)
                options.kick(options.kickParam);
            else
                progressKick();
            g.lock();
        }
        if (d->phases > phases || watch) {
            const int reached = d->phases;
            const DirectSolveStats sofar = d->sofar;
            g.unlock();
            for (; phases < reached; ++phases)
                if (options.reached) options.reached(options.kickParam, phases + 1, sofar);
            if (watch) watch->update(reached, sofar);
            g.lock();
        }
        if (d->done) break;
        if (cancelRequested()) {
            g.unlock();
            checkCancel();  // throws, unless the host has cleared the flag meanwhile
            g.lock();
        }
    }
    g.unlock();
    worker.thread.join();
    if (d->error) std::rethrow_exception(d->error);
    if (stats) *stats = d->stats;
    if (d->result == 1) {
        if (options.solutionInB)
            std::copy(d->b.begin(), d->b.end(), b);
        else
            std::copy(d->x.begin(), d->x.end(), x);
    }
    return d->result;
}

}  // namespace detail
}  // namespace qx
