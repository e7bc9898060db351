// Thread-local variables of the library in static TLS. A library loaded with dlopen would
// otherwise keep them in dynamic TLS, which costs a lookup on every access and which
// LeakSanitizer's thread scan does not survive. Use only for a few small variables: the loader
// keeps a small surplus of static TLS for libraries loaded late.
#pragma once

#define QX_STATIC_TLS __attribute__((tls_model("initial-exec")))
