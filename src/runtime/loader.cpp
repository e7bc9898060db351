// Runs the library's entry when the shared object is loaded and unloaded. Kept out of the
// static archive so that test programs, which link the archive, call the entry themselves.
#include "runtime/environment.h"

namespace {

__attribute__((constructor)) void onLoad() { qx::libraryEntry(1); }
__attribute__((destructor)) void onUnload() { qx::libraryEntry(0); }

}  // namespace
