// Progress that moves: the workflows hear the long steps of a job (the factorisation, the
// Laplacian, a reduced run's doubling) through the thread's listener, while a host of the
// library's own exports sees exactly the progProc calls it always saw.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/progress.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"
#include "support/scenes.h"

namespace {

using qxtest::DiscScene;

// The progress test's disc: a 3-pixel soft edge over stripes, `band` pixels open either side of
// the circle.
DiscScene disc(int w, int h, double r, double band) { return {w, h, r, 3, band - 1.5, true}; }

// The (current, total) pairs a host's progProc is given.
struct Calls {
    std::vector<std::pair<int, int>> seen;
    static int record(int current, int total, void* param) {
        static_cast<Calls*>(param)->seen.push_back({current, total});
        return 0;
    }
    int64_t sum() const {
        return std::accumulate(seen.begin(), seen.end(), int64_t(0),
                               [](int64_t s, const auto& c) { return s + c.first; });
    }
};

// The tri-map job on the whole scene; the alpha comes back, the host's calls go to `calls`.
std::vector<unsigned char> maskAlpha(const DiscScene& s, bool plain, Calls* calls) {
    std::vector<unsigned char> mask = s.trimap;
    qxtest::MaskJob job(s.image, mask, s.w, s.h, calls ? &Calls::record : nullptr, calls);
    const float unknown = float(std::count(mask.begin(), mask.end(), 128));
    const int status = plain ? qxMaskAlphaPlain(&job.req, unknown, 255, 0, 255, 0)
                             : qxMaskAlpha(&job.req, 0, unknown, 255, 0, 255, 0);
    EXPECT_EQ(status, 1);
    return mask;
}

Calls strokesCalls(const DiscScene& s, int budgetMB) {
    const std::vector<unsigned char> coded = qxtest::libraryCoding(s.strokes);
    std::vector<unsigned char> alpha(coded.size());
    Calls calls;
    StrokeMatteRequest req = qxtest::strokeRequest(s.image, coded, alpha, s.w, s.h);
    req.progProc = &Calls::record;
    req.progParam = &calls;
    req.memoryBudgetMB = budgetMB;
    EXPECT_EQ(qxStrokesToAlpha(&req), 1);
    return calls;
}

Calls keepCutCalls(const DiscScene& s, int hiRes) {
    std::vector<unsigned char> src(size_t(s.w) * s.h * 4, 255);
    std::vector<unsigned char> plane = qxtest::libraryCoding(s.strokes);
    for (size_t i = 0; i < plane.size(); ++i)
        for (int c = 0; c < 3; ++c) src[i * 4 + c] = s.image[i * 3 + c];
    std::vector<unsigned char> dst = src, aux = plane;
    Calls calls;
    KeepCutRequest req = qxtest::keepCutRequest(src, plane, dst, aux, s.w, s.h);
    req.progProc = &Calls::record;
    req.progParam = &calls;
    EXPECT_EQ(qxKeepCutToAlpha(&req, hiRes), 1);
    return calls;
}

Calls foregroundCalls(const DiscScene& s) {
    std::vector<unsigned char> colours(s.image.size());
    Calls calls;
    const ForegroundRequest req =
        qxtest::foregroundRequest(s.image, s.alpha, colours, s.w, s.h, &Calls::record, &calls);
    EXPECT_EQ(qxRecoverForegroundFull(&req), 1);
    return calls;
}

// What each export's progProc was given before the workflows had a listener, counted on these
// inputs with the library as it was: the listener must leave it exactly so.
void expectTheExportsCallsAsTheyWere() {
    const DiscScene small = disc(320, 240, 80, 6);
    const DiscScene large = disc(1300, 1200, 400, 3);  // 1.56 MP: a half-size run
    const auto mask = [](const DiscScene& s, bool plain) { Calls c; maskAlpha(s, plain, &c); return c; };
    const struct { const char* what; Calls calls; size_t count; int64_t sum; int total; } table[] = {
        {"qxMaskAlpha", mask(small, false), 12, 780, 130},
        {"qxMaskAlphaPlain", mask(small, true), 12, 780, 130},
        {"qxMaskAlphaPlain half", mask(large, true), 13, 845, 130},
        {"qxStrokesToAlpha", strokesCalls(small, 0), 12, 780, 130},
        {"qxStrokesToAlpha reduced", strokesCalls(small, 1), 0, 0, 0},
        {"qxKeepCutToAlpha", keepCutCalls(small, 1), 256, 2269824, 20000},
        {"qxKeepCutToAlpha half", keepCutCalls(small, 0), 123, 526194, 20000},
        {"qxRecoverForegroundFull", foregroundCalls(small), 60, 1830, 61}};
    for (const auto& t : table) {
        SCOPED_TRACE(t.what);
        EXPECT_EQ(t.calls.seen.size(), t.count);
        EXPECT_EQ(t.calls.sum(), t.sum);
        if (t.count) { EXPECT_EQ(t.calls.seen.back().second, t.total); }
    }
}

bool allOnThisThread(const std::vector<std::thread::id>& threads) {
    return std::all_of(threads.begin(), threads.end(),
                       [](std::thread::id t) { return t == std::this_thread::get_id(); });
}

// What a listener hears, and on which thread.
struct Heard {
    std::vector<double> at;
    std::vector<std::thread::id> threads;
    static void record(double fraction, void* param) {
        static_cast<Heard*>(param)->at.push_back(fraction);
        static_cast<Heard*>(param)->threads.push_back(std::this_thread::get_id());
    }
};

// The exports call their hosts as they did; a workflow's listener takes nothing from them: with
// one installed the exports call their progProc exactly as before, while the listener hears more.
TEST(ExportProgress, TheExportsCallTheirHostsAsTheyDidWithOrWithoutAListener) {
    expectTheExportsCallsAsTheyWere();
    Heard heard;
    {
        const qx::ProgressListenerScope scope(&Heard::record, &heard);
        expectTheExportsCallsAsTheyWere();
    }
    EXPECT_FALSE(qx::progressListening());
    EXPECT_GT(heard.at.size(), 500u);
    EXPECT_TRUE(allOnThisThread(heard.threads));
}

// The reduced run of the stroke engine told its host nothing (its progProc is not handed to the
// reduced tri-map job): a listener hears the whole job climb to its end.
TEST(ExportProgress, TheStrokeEnginesReducedRunMovesForAListener) {
    const DiscScene s = disc(480, 360, 120, 30);
    Heard heard;
    Calls calls;
    {
        const qx::ProgressListenerScope scope(&Heard::record, &heard);
        calls = strokesCalls(s, 2);
    }
    EXPECT_TRUE(calls.seen.empty());
    ASSERT_GE(heard.at.size(), 10u);
    EXPECT_TRUE(std::is_sorted(heard.at.begin(), heard.at.end()));
    EXPECT_EQ(heard.at.front(), 0.0);
    EXPECT_EQ(heard.at.back(), 1.0);
    EXPECT_GE(std::set<double>(heard.at.begin(), heard.at.end()).size(), 10u);
}

// Kicks without a callback, within a step, spans and their parts, by hand.
TEST(ProgressListener, KicksStepsAndSpansPlaceTheJob) {
    Heard h;
    const qx::ProgressListenerScope scope(&Heard::record, &h);
    qx::setProgProc(nullptr, nullptr, 40, 10);
    qx::progressKick();             // 10 of 40
    qx::progressWithin(0.5);        // half way to 20 of 40
    qx::progressWithin(0.5005);     // too close to the last to be told
    qx::progressKick();             // 20
    qx::progressKick();             // 30
    qx::progressKick();             // 40 is the total: back to 20
    EXPECT_EQ(h.at, (std::vector<double>{0.25, 0.375, 0.5, 0.75, 0.5}));

    h.at.clear();
    qx::setProgProc(nullptr, nullptr, 130, 10);
    {
        const qx::ProgressSpan inert(0.2, 0.4);  // no span open and not the job's: nothing
        qx::progressKick();                      // 10 of 130: the kick is heard
    }
    {
        qx::ProgressParts job({1.0, 3.0}, true);  // [0, 1/4] and [1/4, 1]
        qx::progressKick();                       // a kick inside a span is not heard
        qx::progressWithin(0.5);
        job.next();
        {
            const qx::ProgressSpan inner(0.5, 1.0);  // [5/8, 1]
            qx::progressWithin(0.5);
        }
    }
    const std::vector<double> expected = {10.0 / 130, 0.0,   0.0,  0.125, 0.25,
                                          0.25,       0.625, 0.8125, 1.0, 1.0, 1.0};
    ASSERT_EQ(h.at.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_DOUBLE_EQ(h.at[i], expected[i]) << i;
    qx::endJob();
}

TEST(ProgressListener, LaterStagesTakeTheirWeightOfWhatIsLeft) {
    Heard h;
    const qx::ProgressListenerScope scope(&Heard::record, &h);
    {
        qx::ProgressParts parts({1.0, 1.0, 1.0}, true);  // [0, 1/3] ...
        parts.weigh(2, 2.0);  // ... then [1/3, 5/9] and [5/9, 1]
        parts.weigh(0, 100.0);  // the stage in hand keeps its place
        parts.next();
        parts.next();
    }
    const std::vector<double> expected = {0.0, 0.0, 1.0 / 3, 1.0 / 3, 5.0 / 9, 5.0 / 9, 1.0, 1.0};
    ASSERT_EQ(h.at.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_DOUBLE_EQ(h.at[i], expected[i]) << i;
}

TEST(ProgressListener, ASpanLeftByAnExceptionTellsNoEnd) {
    Heard h;
    const qx::ProgressListenerScope scope(&Heard::record, &h);
    try {
        const qx::ProgressSpan job(0.0, 0.5, true);
        qx::progressWithin(0.5);
        throw 7;
    } catch (int) {
    }
    EXPECT_EQ(h.at, (std::vector<double>{0.0, 0.25}));
    EXPECT_FALSE(qx::progressSpanOpen());
}

// A job's reports as a host's progress callback sees them, with the time of each.
struct Timeline {
    std::vector<double> fractions, seconds;
    std::vector<std::thread::id> threads;
    std::chrono::steady_clock::time_point start;
    double total = 0.0;  // the job's time
    volatile int32_t* cancelAt = nullptr;  // set once a report reaches cancelFrom
    double cancelFrom = 2.0;
    bool returned = false, afterReturn = false;
    static void record(double f, void* data) {
        auto* t = static_cast<Timeline*>(data);
        if (t->returned) t->afterReturn = true;
        t->fractions.push_back(f);
        t->seconds.push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t->start).count());
        t->threads.push_back(std::this_thread::get_id());
        if (t->cancelAt && f >= t->cancelFrom) *t->cancelAt = 1;
    }
    // Runs call(job) with this timeline as the job's progress.
    template <class Call>
    QxwStatus run(Call&& call, QxwJob& job) {
        job.progress = &record;
        job.progressData = this;
        start = std::chrono::steady_clock::now();
        const QxwStatus status = call(&job);
        total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        returned = true;
        return status;
    }
    // The longest time without a report, as a part of the job's time.
    double longestGap() const {
        double last = 0.0, gap = 0.0;
        for (double t : seconds) gap = std::max(gap, t - last), last = t;
        return std::max(gap, total - last) / total;
    }
};

// A stroke job and a tri-map job whose solve takes most of a second: the factorisation, a
// single kick of the library's counter, moves the host's bar too.
class WorkflowProgressSteps : public ::testing::TestWithParam<bool> {};

TEST_P(WorkflowProgressSteps, TenStepsSpreadOverTheJobsTime) {
    const bool strokes = GetParam();
    const DiscScene s = disc(640, 480, 190, 30);
    const QxwImage img = s.view();
    std::vector<unsigned char> alpha(s.trimap.size());
    Timeline t;
    QxwJob job{};
    ASSERT_EQ(t.run([&](QxwJob* j) {
        return strokes ? qxwMatteStrokes(&img, s.strokes.data(), s.w, QXW_ENGINE_STROKES,
                                         alpha.data(), s.w, j)
                       : qxwMatteTrimap(&img, s.trimap.data(), s.w, 255, 0, 255, 0,
                                        alpha.data(), s.w, j);
    }, job), QXW_OK) << job.message;
    EXPECT_TRUE(std::adjacent_find(t.fractions.begin(), t.fractions.end(),
                                   std::greater_equal<double>()) == t.fractions.end());
    ASSERT_GE(t.fractions.size(), 10u);
    EXPECT_EQ(t.fractions.back(), 1.0);
    EXPECT_LT(t.longestGap(), 0.35);
    EXPECT_TRUE(allOnThisThread(t.threads));
    EXPECT_FALSE(t.afterReturn);
    EXPECT_LT(s.openError(alpha), 8.0 / 255);  // and the alpha is the disc's
}

INSTANTIATE_TEST_SUITE_P(StrokesAndTrimap, WorkflowProgressSteps, ::testing::Bool());

// Cancelled half way through (in the solve, while the job's thread waits for it): the job
// stops within a second, and no report comes after it returned or from another thread.
TEST(WorkflowProgressCancel, ACancelledJobStopsAtOnceAndReportsNoMore) {
    const DiscScene s = disc(640, 480, 190, 30);
    const QxwImage img = s.view();
    std::vector<unsigned char> alpha(s.trimap.size(), 77);
    volatile int32_t flag = 0;
    Timeline t;
    t.cancelAt = &flag;
    t.cancelFrom = 0.5;
    QxwJob job{};
    job.cancel = &flag;
    EXPECT_EQ(t.run([&](QxwJob* j) {
        return qxwMatteTrimap(&img, s.trimap.data(), s.w, 255, 0, 255, 0, alpha.data(), s.w, j);
    }, job), QXW_CANCELLED);
    ASSERT_FALSE(t.fractions.empty());
    const size_t at = std::find_if(t.fractions.begin(), t.fractions.end(),
                                   [](double f) { return f >= 0.5; }) -
                      t.fractions.begin();
    ASSERT_LT(at, t.fractions.size());
    EXPECT_LT(t.total - t.seconds[at], 1.0);
    EXPECT_TRUE(std::is_sorted(t.fractions.begin(), t.fractions.end()));
    EXPECT_TRUE(allOnThisThread(t.threads));
    EXPECT_TRUE(std::all_of(alpha.begin(), alpha.end(), [](unsigned char a) { return a == 77; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(t.afterReturn);
}

}  // namespace
