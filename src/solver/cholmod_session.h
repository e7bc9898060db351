// CHOLMOD's workspace with one matrix and its factor, all released in the destructor, so that
// every way out of a caller (return or throw) frees them. `started` is false when CHOLMOD could
// not set up its workspace.
#pragma once

#include <cholmod.h>

namespace qx {

struct CholmodSession {
    cholmod_common c;
    bool started = false;
    cholmod_sparse* A = nullptr;
    cholmod_factor* L = nullptr;

    CholmodSession() { started = cholmod_start(&c) != 0; }
    ~CholmodSession() {
        if (L) cholmod_free_factor(&L, &c);
        if (A) cholmod_free_sparse(&A, &c);
        if (started) cholmod_finish(&c);
    }
    CholmodSession(const CholmodSession&) = delete;
    CholmodSession& operator=(const CholmodSession&) = delete;

    // Whether the last call failed for want of memory.
    bool memoryFailure() const {
        return c.status == CHOLMOD_OUT_OF_MEMORY || c.status == CHOLMOD_TOO_LARGE;
    }
};

}  // namespace qx
