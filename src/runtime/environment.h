// Load and unload of the library: the sparse solver's out-of-core environment, the trace, the
// progress state and the primitives' code path.
#pragma once

namespace qx {

// The loader's entry: reason 1 at load (process attach), 0 at unload (process detach); 2 and 3
// (thread attach/detach) do nothing. Returns 1 for every reason. The shared object calls it from
// its constructor and destructor; tests call it directly.
int libraryEntry(int reason);

// Saves the three out-of-core variables and, when the process had no MKL_PARDISO_OOC_PATH,
// sets all three to the library's values. Returns 1.
int setQXEnvVars();
// Puts the saved values back (see environment.cpp for which). Returns 1.
int restoreQXEnvVars();

// 1 once the out-of-core environment is usable.
int oocReady();

}  // namespace qx
