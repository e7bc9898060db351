#include "interrupt.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace qxmatte {
namespace {

volatile int32_t cancel = 0;
volatile sig_atomic_t signalled = 0;
constexpr int kMaxTemporaries = 8;
char temporaries[kMaxTemporaries][4096];
volatile sig_atomic_t temporaryCount = 0;

// Only async-signal-safe calls from here on.
void onAlarm(int) {
    for (int i = 0; i < temporaryCount; ++i) unlink(temporaries[i]);
    _exit(128 + signalled);
}

void onSignal(int sig) {
    if (signalled == 0) signalled = sig;
    __atomic_store_n(const_cast<int32_t*>(&cancel), 1, __ATOMIC_RELAXED);
    // The job has 0.6 s to stop at a progress step; the rest of the second is for the process's
    // own teardown.
    struct itimerval t{};
    t.it_value.tv_usec = 600000;
    setitimer(ITIMER_REAL, &t, nullptr);
}

}  // namespace

void installInterrupt() {
    struct sigaction sa{};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    struct sigaction al{};
    al.sa_handler = onAlarm;
    sigemptyset(&al.sa_mask);
    sigaction(SIGALRM, &al, nullptr);
}

const volatile int32_t* cancelFlag() { return &cancel; }

int interruptedBy() { return signalled; }

void registerTemporary(const char* path) {
    if (temporaryCount >= kMaxTemporaries) return;
    std::strncpy(temporaries[temporaryCount], path, sizeof temporaries[0] - 1);
    temporaries[temporaryCount][sizeof temporaries[0] - 1] = '\0';
    temporaryCount = temporaryCount + 1;
}

void clearTemporaries() { temporaryCount = 0; }

int exitNow(int status) {
    if (signalled == 0) return status;
    std::fflush(nullptr);
    // A command that failed while a signal was stopping it was stopped by the signal.
    _exit(status == 0 ? 0 : 128 + signalled);
}

}  // namespace qxmatte
