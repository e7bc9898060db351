// Run-time choice of the code path for the running processor. Hot row loops are compiled
// several times (baseline x86-64, AVX2, AVX-512) with GCC's target_clones; the loader picks
// the best one the processor supports when the library is loaded. The shipped library is never
// built for the build machine alone.
//
// The binding is fixed for the life of the process, so no call can move a running program to
// another path. A build with QX_BASELINE_ONLY defined (for instance
// -DCMAKE_CXX_FLAGS=-DQX_BASELINE_ONLY=1) carries the baseline loops alone, as sanitizer builds
// do: the baseline's results can be recorded from such a build and every other path checked
// against them. QX_CLONES_UP_TO_AVX2 leaves the AVX-512 clones out, so that an AVX-512 machine
// runs the AVX2 loops (tests/image/code_paths compares the three builds).
#pragma once

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(QX_SANITIZE) && \
    !defined(QX_BASELINE_ONLY)
#define QX_HAS_CLONES 1
#if defined(QX_CLONES_UP_TO_AVX2)
#define QX_CLONES __attribute__((target_clones("default", "avx2")))
#else
#define QX_CLONES __attribute__((target_clones("default", "avx2", "arch=x86-64-v4")))
#endif
#else
#define QX_HAS_CLONES 0
#define QX_CLONES
#endif

namespace qx::prim {

// 0 baseline x86-64 (SSE2), 1 SSE4.2, 2 AVX2, 3 AVX-512: what this processor offers.
int cpuFeatureLevel();
// Makes sure the code path is chosen (it is fixed at load) and returns the level in use: 0 in a
// build without the clones, whatever the processor.
int selectCodePath();
// "x86-64", "sse4.2", "avx2" or "avx512".
const char* codePathName();

}  // namespace qx::prim
