#include "frame/fpmode.h"

#include <omp.h>
#include <xmmintrin.h>

#include <vector>

namespace qx {
namespace {

constexpr unsigned kFtz = 0x8000;     // MXCSR flush-to-zero
constexpr unsigned kDaz = 0x0040;     // MXCSR denormals-are-zero
constexpr unsigned kUnderflowMask = 0x0800;

thread_local int depth = 0;
// Worker threads' saved modes, indexed by OpenMP thread number, for the outermost guard of the
// calling thread. Per host thread: each host thread that opens a parallel region gets its own
// team of workers, and two host threads in exports at once must not share the record.
thread_local std::vector<unsigned> workerSaved;

unsigned withFlush(unsigned csr) { return csr | kFtz | kDaz | kUnderflowMask; }

}  // namespace

FpModeGuard::FpModeGuard() : saved_(_mm_getcsr()), outer_(depth++ == 0) {
    if (outer_ && !omp_in_parallel()) {
        // The team's worker threads are the library's hands for this call: switch them too.
        // This runs before the calling thread changes mode, because threads that the runtime
        // creates here inherit the caller's mode, and that is the mode to restore.
        // The workers reach this thread's record through a pointer: inside the region the
        // name workerSaved would mean each worker's own, empty, record.
        std::vector<unsigned>* const saved = &workerSaved;
        saved->assign(static_cast<size_t>(omp_get_max_threads()), 0);
#pragma omp parallel
        {
            const int t = omp_get_thread_num();
            if (t > 0 && t < static_cast<int>(saved->size())) {
                (*saved)[t] = _mm_getcsr();
                _mm_setcsr(withFlush((*saved)[t]));
            }
        }
    }
    _mm_setcsr(withFlush(saved_));
}

FpModeGuard::~FpModeGuard() {
    if (outer_ && !omp_in_parallel() && !workerSaved.empty()) {
        const std::vector<unsigned>* const saved = &workerSaved;
#pragma omp parallel
        {
            const int t = omp_get_thread_num();
            if (t > 0 && t < static_cast<int>(saved->size())) _mm_setcsr((*saved)[t]);
        }
    }
    --depth;
    _mm_setcsr(saved_);
}

bool flushToZeroOn() { return (_mm_getcsr() & kFtz) != 0; }
bool denormalsAreZeroOn() { return (_mm_getcsr() & kDaz) != 0; }

}  // namespace qx
