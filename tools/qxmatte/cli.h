// What the commands (commands/*.cpp) share: exit codes, failure messages, arguments, reading and
// all-or-nothing writing, the job record with its progress bar, and the steps around a workflow
// call.
#pragma once

#include <opencv2/core.hpp>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "image_io.h"
#include "interrupt.h"
#include "qxworkflow.h"

namespace qxmatte {

// Exit codes, as --help lists them.
enum Exit { kExitOk = 0, kExitInput = 1, kExitUsage = 2, kExitOutput = 3, kExitJob = 4 };

// Prints "qxmatte: message" (or keeps it, see captureFailures) and returns code.
int fail(int code, const std::string& message);
// From now on this thread's failure messages go into *into instead (nullptr: back to stderr).
void captureFailures(std::string* into);
// Blanks the terminal line a progress bar is drawn on (the widest bar: batch's photo count).
void clearBarLine();
// A command line that names too little: one line, and where to look.
int usageError(const char* command, const std::string& what);
bool parseInt(const char* text, int lo, int hi, int* out);
// The arguments every command takes alike: -q, the positional names, and a refusal of any other
// option. kExitOk when taken, otherwise the exit status.
int otherArgument(const std::string& a, bool* showProgress, std::vector<std::string>* positional);

// --keep/--cut X0,Y0,X1,Y1,R (R >= 0), added to list; false when the text is off.
struct VectorStroke {
    int v[5];
    bool keep;
};
bool addVectorStroke(const std::string& option, const std::string& text,
                     std::vector<VectorStroke>* list);
constexpr const char* kVectorStrokeUsage = " takes X0,Y0,X1,Y1,R (integers, R at least 0)";
// Paints vector strokes into the stroke image, making an unpainted one first when there is none.
void applyVectorStrokes(const cv::Size& size, const std::vector<VectorStroke>& list,
                        cv::Mat* strokes);

// The record of one command's workflow calls: the progress bar (when shown) and the cancel flag
// that SIGINT and SIGTERM raise.
struct Job {
    QxwJob job{};
    int last = -1;
    bool bar;
    // The share of the command's one bar that the next workflow call fills: a command of several
    // calls draws one bar from 0 to 100%, each call its own stretch of it.
    double from = 0.0, to = 1.0;
    explicit Job(bool showProgress) : bar(showProgress) {
        job.cancel = qxmatte::cancelFlag();
        if (bar) {
            job.progress = &draw;
            job.progressData = this;
        }
    }
    ~Job() { clear(); }
    void stage(double lo, double hi) {
        from = lo;
        to = hi;
    }
    // Takes the bar off the terminal's line (before printing text); the next report redraws it.
    void clear() {
        if (bar && last >= 0) clearBarLine();
    }
    static void draw(double fraction, void* data) {
        auto* self = static_cast<Job*>(data);
        const int percent = static_cast<int>((self->from + (self->to - self->from) * fraction) * 100);
        if (percent <= self->last) return;
        self->last = percent;
        const int filled = percent * 30 / 100;
        std::fprintf(stderr, "\r[%.*s%.*s] %3d%%", filled, "##############################",
                     30 - filled, "                              ", percent);
        std::fflush(stderr);
    }
    QxwJob* operator->() { return &job; }
    operator QxwJob*() { return &job; }
};

// The exit status of a failed workflow: the input's fault, the library's, or a signal's.
int jobFailure(const std::string& source, QxwStatus status, const QxwJob& job);

// The record of a BGR image for the workflows.
QxwImage imageOf(const cv::Mat& bgr);
// The share of a command's bar for the alpha when the colours are recovered after it.
constexpr double kSolveShare = 0.75;
// The subject's colours under an alpha (the full-resolution recovery unless said otherwise);
// the workflow's status, with the colours in *out.
QxwStatus recover(const cv::Mat& image, const cv::Mat& alpha, Job& job, cv::Mat* out,
                  QxwForegroundMethod method = QXW_FG_FULL);

// What a photo's partner file asks for; Subject: no partner, the one-click cut-out.
enum class Partner { Mask, Trimap, Strokes, Subject };
// The RGBA cut-out (BGRA) of a photo and its partner, exactly as `refine`, `trimap --cutout`,
// `keepcut --cutout` and `cutout` without --rect (no partner) make it with their defaults;
// *alpha too when not null. The exit status.
int cutoutOf(Partner kind, const std::string& imagePath, const std::string& partnerPath, Job& job,
             cv::Mat* rgba, cv::Mat* alpha);

// The commands, each in commands/: its arguments after the command's name; the exit status.
int runTrimap(int argc, char** argv, bool showProgress);
int runKeepCut(int argc, char** argv, bool showProgress);
int runForeground(int argc, char** argv, bool showProgress);
int runGrabCutCommand(int argc, char** argv, bool showProgress, bool cutoutCommand);
int runRefine(int argc, char** argv, bool showProgress);
int runBatch(int argc, char** argv, bool showProgress);
int runDemo(int argc, char** argv, bool showProgress);

}  // namespace qxmatte
