// The library's version as a plug-in checks it at run time: the header's version macros are the
// one source (CMake checks that they agree with the project's version at configure time).
#include "qxiveilon31.h"

extern "C" QX_API int qxVersion(int* major, int* minor, int* patch) {
    if (major) *major = QXIVEILON31_VERSION_MAJOR;
    if (minor) *minor = QXIVEILON31_VERSION_MINOR;
    if (patch) *patch = QXIVEILON31_VERSION_PATCH;
    return QXIVEILON31_VERSION_MAJOR * 10000 + QXIVEILON31_VERSION_MINOR * 100 +
           QXIVEILON31_VERSION_PATCH;
}
