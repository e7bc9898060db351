// What a host may still allocate, as the library's jobs see it, for messages of the host's own
// (an image too large to decode, say) in the same terms as the jobs' out-of-memory messages.
#include "runtime/memory.h"
#include "qxworkflow.h"

extern "C" QX_API int qxwFreeMemory(uint64_t* bytes) {
    if (!bytes) return 0;
    return qx::freeMemory(bytes) ? 1 : 0;
}
