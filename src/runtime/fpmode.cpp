#include "runtime/fpmode.h"
#include "runtime/static_tls.h"

#include <omp.h>
#include <xmmintrin.h>

namespace qx {
namespace {

constexpr unsigned kFtz = 0x8000;     // MXCSR flush-to-zero
constexpr unsigned kDaz = 0x0040;     // MXCSR denormals-are-zero
constexpr unsigned kUnderflowMask = 0x0800;

QX_STATIC_TLS thread_local int depth = 0;
// A worker thread's own mode as the outermost guard of its host thread found it. Each host
// thread that opens a parallel region gets its own team of workers, so this record is never
// shared between two host threads' calls: nothing here needs a lock.
QX_STATIC_TLS thread_local unsigned workerSaved = 0;
QX_STATIC_TLS thread_local bool workerSwitched = false;

unsigned withFlush(unsigned csr) { return csr | kFtz | kDaz | kUnderflowMask; }

}  // namespace

FpModeGuard::FpModeGuard() : saved_(_mm_getcsr()), outer_(depth++ == 0) {
    if (outer_ && !omp_in_parallel()) {
        // The team's worker threads are the library's hands for this call: switch them too.
        // This runs before the calling thread changes mode, because threads that the runtime
        // creates here inherit the caller's mode, and that is the mode to restore.
#pragma omp parallel
        {
            if (omp_get_thread_num() > 0) {
                workerSaved = _mm_getcsr();
                workerSwitched = true;
                _mm_setcsr(withFlush(workerSaved));
            }
        }
    }
    _mm_setcsr(withFlush(saved_));
}

FpModeGuard::~FpModeGuard() {
    if (outer_ && !omp_in_parallel()) {
#pragma omp parallel
        {
            if (omp_get_thread_num() > 0 && workerSwitched) {
                _mm_setcsr(workerSaved);
                workerSwitched = false;
            }
        }
    }
    --depth;
    _mm_setcsr(saved_);
}

bool flushToZeroOn() { return (_mm_getcsr() & kFtz) != 0; }
bool denormalsAreZeroOn() { return (_mm_getcsr() & kDaz) != 0; }

}  // namespace qx
