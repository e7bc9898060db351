#include "image/dispatch.h"

namespace qx::prim {

int cpuFeatureLevel() {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl"))
        return 3;
    if (__builtin_cpu_supports("avx2")) return 2;
    if (__builtin_cpu_supports("sse4.2")) return 1;
    return 0;
}

int selectCodePath() {
#if !QX_HAS_CLONES
    return 0;  // sanitizer, baseline-only and non-GCC builds carry the baseline loops only
#else
    const int level = cpuFeatureLevel();
    return level == 1 ? 0 : level;  // the clones are baseline, AVX2 and AVX-512
#endif
}

const char* codePathName() {
    switch (selectCodePath()) {
        case 3: return "avx512";
        case 2: return "avx2";
        case 1: return "sse4.2";
        default: return "x86-64";
    }
}

}  // namespace qx::prim
