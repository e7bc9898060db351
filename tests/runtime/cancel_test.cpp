// Cancel through the host's flag: every long job stops at a progress step once the flag is set,
// returns QX_CANCELLED, leaves the host's buffers as they came in, and the next job on the same
// thread, with the flag cleared, gives the result of an uncancelled run.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "runtime/progress.h"
#include "solver/direct_backends.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"
#include "support/scenes.h"

namespace {

constexpr int W = 320, H = 240;

// The demonstration scene, with its image also as BGRA.
struct Scene : qxtest::DemoScene {
    std::vector<unsigned char> bgra4 = bgra();
    Scene() : DemoScene(W, H, 9) {}
};

// A progress callback that sets the flag at its n-th report (0: never) and counts reports.
struct Trigger {
    volatile int32_t flag = 0;
    int reports = 0, cancelAt = 0;
    static int proc(int, int, void* self) {
        auto* t = static_cast<Trigger*>(self);
        if (++t->reports == t->cancelAt) t->flag = 1;
        return 1;
    }
};

// The tri-map job on the scene's colour planes: the tri-map in `mask` becomes the alpha.
int trimapJob(const Scene& s, std::vector<unsigned char>& mask, Trigger* t) {
    qxtest::MaskJob job(s.image, mask, W, H, &Trigger::proc, t);
    return qxMaskAlpha(&job.req, 0, float(W * H), 255, 0, 255, 0);
}

// The full-resolution colour recovery under the scene's true alpha, into `out`.
int colourJob(const Scene& s, std::vector<unsigned char>& out, Trigger* t) {
    const ForegroundRequest r =
        qxtest::foregroundRequest(s.image, s.truth, out, W, H, &Trigger::proc, t);
    return qxRecoverForegroundFull(&r);
}

// A GrabCut session over the scene, cut with a trigger's flag and reports.
struct GrabCutSession {
    std::vector<unsigned char> codes, result;
    GrabCutRequest r{};
    GrabCutSession(Scene& s, const std::vector<unsigned char>& start, unsigned char resultFill)
        : codes(start), result(W * H, resultFill) {
        r = {.image = s.bgra4.data(), .imageStep = W * 4, .mask = codes.data(), .maskStep = W,
             .result = result.data(), .resultStep = W, .width = W, .height = H,
             .progProc = &Trigger::proc, .roiWidth = W, .roiHeight = H};
    }
    ~GrabCutSession() { qxGrabCutDeleteBuf(&r); }
    int cut(Trigger* t) {
        r.progParam = t;
        qx::setCancelFlag(&t->flag);
        const int status = qxGrabCut(&r, 0);
        qx::setCancelFlag(nullptr);
        return status;
    }
};

// One job: runs on the buffers it owns and returns its status; `out` is every buffer the host
// lends it.
struct Job {
    std::function<int(Trigger*)> run;
    std::vector<std::vector<unsigned char>*> buffers;
    int done;  // the status of an uncancelled run
};

std::vector<std::vector<unsigned char>> snapshot(const Job& j) {
    std::vector<std::vector<unsigned char>> s;
    for (auto* b : j.buffers) s.push_back(*b);
    return s;
}

// Runs the job uncancelled, then cancelled at its first, middle and last report, then again.
void checkCancel(const char* name, Job job) {
    SCOPED_TRACE(name);
    const auto before = snapshot(job);
    Trigger full;
    qx::setCancelFlag(&full.flag);
    ASSERT_EQ(job.run(&full), job.done);
    const auto result = snapshot(job);
    ASSERT_GE(full.reports, 3);
    for (int at : {1, full.reports / 2, full.reports - 1}) {
        for (size_t i = 0; i < job.buffers.size(); ++i) *job.buffers[i] = before[i];
        Trigger t;
        t.cancelAt = at;
        qx::setCancelFlag(&t.flag);
        EXPECT_EQ(job.run(&t), QX_CANCELLED) << "cancelled at report " << at;
        EXPECT_EQ(snapshot(job), before) << "cancelled at report " << at;
        EXPECT_EQ(qx::progressState().proc, nullptr);
    }
    for (size_t i = 0; i < job.buffers.size(); ++i) *job.buffers[i] = before[i];
    Trigger again;
    qx::setCancelFlag(&again.flag);
    ASSERT_EQ(job.run(&again), job.done);
    EXPECT_EQ(snapshot(job), result);
    qx::setCancelFlag(nullptr);
}

TEST(Cancel, TriMapJob) {
    const Scene s;
    std::vector<unsigned char> mask = s.trimap;
    checkCancel("qxMaskAlpha", {[&](Trigger* t) { return trimapJob(s, mask, t); }, {&mask}, 1});
}

// A factorisation can't be stopped from outside; the job stops waiting for it. Here the solve is
// held at its start for as long as the test likes, so the job can only return by leaving it.
TEST(Cancel, AJobStopsWaitingForItsFactorisation) {
    const Scene s;
    std::vector<unsigned char> plain = s.trimap;
    Trigger noFlag;
    ASSERT_EQ(trimapJob(s, plain, &noFlag), 1);

    std::vector<unsigned char> mask = s.trimap;
    Trigger t;
    std::future<int> job;
    {
        auto hold = qx::detail::holdMumps();
        job = std::async(std::launch::async, [&] {
            qx::setCancelFlag(&t.flag);
            const int status = trimapJob(s, mask, &t);
            qx::setCancelFlag(nullptr);
            return status;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (qx::detail::runningDetachedSolves() == 0 &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ASSERT_EQ(qx::detail::runningDetachedSolves(), 1);
        t.flag = 1;
        ASSERT_EQ(job.wait_for(std::chrono::seconds(5)), std::future_status::ready)
            << "the job waited for a solve that could not finish";
        EXPECT_EQ(job.get(), QX_CANCELLED);
        EXPECT_EQ(mask, s.trimap);
        EXPECT_EQ(qx::detail::runningDetachedSolves(), 1);  // still held
    }
    // Once let go, the solve left behind finishes on its own, and the next job is right, with the
    // same reports as without a flag.
    mask = s.trimap;
    Trigger again;
    qx::setCancelFlag(&again.flag);
    EXPECT_EQ(trimapJob(s, mask, &again), 1);
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(mask, plain);
    EXPECT_EQ(again.reports, noFlag.reports);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (qx::detail::runningDetachedSolves() != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(qx::detail::runningDetachedSolves(), 0);
}

TEST(Cancel, StrokeJobs) {
    Scene s;
    std::vector<unsigned char> coded = qxtest::libraryCoding(s.strokes), alpha(W * H, 7);
    checkCancel("qxStrokesToAlpha", {[&](Trigger* t) {
        StrokeMatteRequest r = qxtest::strokeRequest(s.image, coded, alpha, W, H);
        r.progProc = &Trigger::proc;
        r.progParam = t;
        return qxStrokesToAlpha(&r);
    }, {&alpha}, 1});
    std::vector<unsigned char> plane = coded, aux(W * H, 0), dst = s.bgra4;
    checkCancel("qxKeepCutToAlpha", {[&](Trigger* t) {
        KeepCutRequest r = qxtest::keepCutRequest(s.bgra4, plane, dst, aux, W, H);
        r.progProc = &Trigger::proc;
        r.progParam = t;
        return qxKeepCutToAlpha(&r, 1);
    }, {&plane, &dst, &aux}, 1});
}

TEST(Cancel, ColourRecovery) {
    Scene s;
    std::vector<unsigned char> out(W * H * 3, 5);
    checkCancel("qxRecoverForegroundFull",
                {[&](Trigger* t) { return colourJob(s, out, t); }, {&out}, 1});
    // The quarter-scale recovery reports to no host callback; a flag set before it stops it.
    std::vector<unsigned char> dst = s.bgra4, alpha = s.truth, aux(W * H, 0);
    KeepCutRequest r = qxtest::keepCutRequest(s.bgra4, alpha, dst, aux, W, H);
    volatile int32_t flag = 1;
    qx::setCancelFlag(&flag);
    EXPECT_EQ(qxRecoverForeground(&r, 0), QX_CANCELLED);
    EXPECT_EQ(qxRecoverForegroundCell(&r, 0), QX_CANCELLED);
    EXPECT_EQ(dst, s.bgra4);
    flag = 0;
    EXPECT_EQ(qxRecoverForeground(&r, 0), 0);
    qx::setCancelFlag(nullptr);
}

// A flag set before a job starts stops it before anything is written; for GrabCut that includes
// the session's control, which is not created.
TEST(Cancel, AJobWhoseFlagIsSetDoesNotStart) {
    Scene s;
    GrabCutSession session(s, std::vector<unsigned char>(W * H, 126), 3);
    Trigger t;
    t.flag = 1;
    EXPECT_EQ(session.cut(&t), QX_CANCELLED);
    EXPECT_EQ(session.r.control, nullptr);
    EXPECT_EQ(session.codes, std::vector<unsigned char>(W * H, 126));
    EXPECT_EQ(session.result, std::vector<unsigned char>(W * H, 3));
}

// A cancelled cut leaves the session as it was: the next cut gives what it gives after the
// earlier cuts alone, and a first cut that is cancelled leaves no control.
TEST(Cancel, ACancelledCutLeavesTheSession) {
    Scene s;
    // A rectangle inside a 20-px frame of background, as a host paints it.
    std::vector<unsigned char> start(W * H, 0);
    for (int y = 20; y < H - 20; ++y)
        for (int x = 20; x < W - 20; ++x) start[size_t(y) * W + x] = 126;
    // A stroke of fixed foreground between the cuts, so that the second one learns again.
    const auto paint = [](std::vector<unsigned char>& codes) {
        for (int y = H / 2 - 5; y < H / 2 + 5; ++y)
            for (int x = W / 2 - 5; x < W / 2 + 5; ++x) codes[size_t(y) * W + x] = 255;
    };
    GrabCutSession plain(s, start, 0), cancelled(s, start, 0);
    Trigger a1, a2;
    ASSERT_EQ(plain.cut(&a1), 1);
    paint(plain.codes);
    const std::vector<unsigned char> firstCodes = plain.codes;
    ASSERT_EQ(plain.cut(&a2), 1);
    // A cut reports once, after cv::grabCut has learnt: a cancel there undoes that learning.
    ASSERT_EQ(a1.reports, 1);
    ASSERT_EQ(a2.reports, 1);

    Trigger first;
    first.cancelAt = 1;
    EXPECT_EQ(cancelled.cut(&first), QX_CANCELLED);
    EXPECT_EQ(cancelled.r.control, nullptr);
    EXPECT_EQ(cancelled.codes, start);
    Trigger b1, b2, b3;
    ASSERT_EQ(cancelled.cut(&b1), 1);
    paint(cancelled.codes);
    EXPECT_EQ(cancelled.codes, firstCodes);
    b2.cancelAt = 1;
    EXPECT_EQ(cancelled.cut(&b2), QX_CANCELLED);
    EXPECT_EQ(cancelled.codes, firstCodes);
    ASSERT_EQ(cancelled.cut(&b3), 1);
    EXPECT_EQ(cancelled.codes, plain.codes);
    EXPECT_EQ(cancelled.result, plain.result);
}

}  // namespace
