// A direct solve that a cancelled job can walk away from. A factorisation can't be interrupted
// from outside (MUMPS and CHOLMOD have no hook for it), and on a 12 MP image it runs for several
// seconds; a host's Cancel has to answer within one. So while a cancel flag is installed the solve
// runs on a thread of its own, on memory it owns, and the job's thread only waits for it.
#include <xmmintrin.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "frame/fault.h"
#include "frame/progress.h"
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
    if (!system || cancelFlag() == nullptr || n < 1 || nrhs < 1 || b == nullptr)
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
        if (!options.memoryPath) throw int(Fault::SolverAnalysis);
        return 0;
    }
    d->options = options;
    d->options.kick = countKick;
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
        d->options.kickParam = options.kickParam;
        return directSolve(d->options, n, d->system->a, d->system->ia, d->system->ja, b, x, nrhs,
                           mtype, stats);
    }

    // Kicks are made here, on the job's thread, in the order the solve reports them; any of them
    // may end the job (a set flag), which leaves the worker to finish alone.
    int relayed = 0;
    std::unique_lock<std::mutex> g(d->lock);
    for (;;) {
        d->changed.wait_for(g, kPoll, [&] { return d->done || d->kicks > relayed; });
        while (relayed < d->kicks) {
            ++relayed;
            g.unlock();
            if (options.kick)
                options.kick(options.kickParam);
            else
                progressKick();
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
