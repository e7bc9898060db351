// One-line failure messages: to the standard error, or into a batch item's record.
#include <unistd.h>

#include <cstdio>

#include "cli.h"

namespace qxmatte {

// Where a batch item's messages go instead of the standard error (one a thread).
thread_local std::string* failCapture = nullptr;

int fail(int code, const std::string& message) {
    if (failCapture) {
        *failCapture = message;
    } else {
        if (isatty(STDERR_FILENO)) clearBarLine();
        std::fprintf(stderr, "qxmatte: %s\n", message.c_str());
    }
    return code;
}

void captureFailures(std::string* into) { failCapture = into; }

void clearBarLine() { std::fprintf(stderr, "\r%*s\r", 50, ""); }

}  // namespace qxmatte
