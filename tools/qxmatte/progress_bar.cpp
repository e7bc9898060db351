#include "progress_bar.h"

#include <cstdio>

namespace qxmatte {

ProgressBar* progressBarForJob() {
    static ProgressBar bar;
    bar.last = -1;
    return &bar;
}

int drawProgress(int current, int total, void* param) {
    auto* bar = static_cast<ProgressBar*>(param);
    const int percent = total > 0 ? current * 100 / total : 0;
    if (percent == bar->last) return 0;
    bar->last = percent;
    const int filled = percent * 30 / 100;
    std::fprintf(stderr, "\r[%.*s%.*s] %3d%%", filled, "##############################",
                 30 - filled, "                              ", percent);
    std::fflush(stderr);
    return 0;
}

void clearProgress() { std::fprintf(stderr, "\r%*s\r", 40, ""); }

bool chooseProgress(const Progress& progress, qxProgressProc* proc, void** param) {
    if (progress.proc) {
        *proc = progress.proc;
        *param = progress.param;
        return false;
    }
    if (!progress.bar) return false;
    *proc = drawProgress;
    *param = progressBarForJob();
    return true;
}

}  // namespace qxmatte
