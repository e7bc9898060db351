// Jobs the way hosts run them: sequences of long jobs (tri-map, strokes, both colour
// recoveries, the workflows; the one-click cut-out's refinement of a drawn mask with a drawn
// rectangle and strokes over it, and the one-click calls with no model installed, so that no
// network runs) from one thread or from two at once, each with or without a
// progress callback, some cancelled by their own callback at a report the fuzzer picks, some
// with the cancel flag already set. After every job: the status is one the job documents; a
// cancelled or refusing job left the host's buffers as they were; inputs never change; and no
// callback is ever called for a job that has returned (each job's probe is marked finished
// when its call returns and stays alive to the end, so a late call is caught, not a crash).
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "fuzz_host.h"
#include "qxworkflow.h"
#include "support/requests.h"
#include "workflow/workflow.h"

using namespace qxfuzz;

namespace {

struct Probe {
    std::atomic<bool> finished{false};
    volatile int32_t flag = 0;
    int reports = 0, cancelAt = 0;
    static int proc(int, int, void* self) {
        auto* p = static_cast<Probe*>(self);
        if (p->finished) fail("a callback was called after its job returned", "a job");
        if (++p->reports == p->cancelAt) p->flag = 1;
        return 1;
    }
    static void fraction(double f, void* self) {
        expect(f >= 0.0 && f <= 1.0, "progress fraction outside 0..1", "a workflow");
        proc(0, 0, self);
    }
};

// One job's inputs, drawn from the fuzzer's bytes before any thread starts.
struct Job {
    int kind = 0, w = 1, h = 1, cancelAt = 0;
    bool callback = false, preset = false;
    std::vector<uint8_t> image, plane;  // BGR, and a tri-map, stroke or alpha plane
    std::vector<uint8_t> soft;          // the one-click kinds: a network's mask
    int rect[4] = {0, 0, 0, 0};         // x, y, width, height; all 0: none
};

Job draw(Input& in) {
    Job j;
    j.kind = in.range<int>(0, 7), j.w = in.range<int>(1, 40), j.h = in.range<int>(1, 40);
    j.callback = in.flag();
    j.preset = in.range<int>(0, 7) == 0;
    j.cancelAt = in.flag() ? in.range<int>(1, 40) : 0;
    Rng rng{in.seed() | 1};
    j.image.resize(size_t(j.w) * j.h * 3);
    for (auto& v : j.image) v = uint8_t(rng.next());
    j.plane.resize(size_t(j.w) * j.h);
    const int split = in.range<int>(0, j.w);
    for (int y = 0; y < j.h; ++y)
        for (int x = 0; x < j.w; ++x)
            j.plane[size_t(y) * j.w + x] =
                (rng.next() & 3) == 0 ? codeFromByte(uint8_t(rng.next())) : x < split ? 255 : 0;
    if (j.kind >= 6) {
        j.soft.resize(j.plane.size());
        const int edge = in.range<int>(0, j.h);
        for (int y = 0; y < j.h; ++y)
            for (int x = 0; x < j.w; ++x)
                j.soft[size_t(y) * j.w + x] =
                    (rng.next() & 7) == 0 ? uint8_t(rng.next()) : y < edge ? 230 : 10;
        if (in.flag()) {  // a rectangle, now and then reaching outside the image
            j.rect[0] = in.range<int>(-2, j.w), j.rect[1] = in.range<int>(-2, j.h);
            j.rect[2] = in.range<int>(0, j.w + 2), j.rect[3] = in.range<int>(0, j.h + 2);
        }
    }
    return j;
}

// Runs one job on the calling thread; checks what it left.
void run(const Job& j, Probe& probe) {
    const std::vector<uint8_t> image = j.image, plane = j.plane;
    std::vector<uint8_t> out(size_t(j.w) * j.h * 3, 0x5A);
    const std::vector<uint8_t> outBefore = out;
    probe.cancelAt = j.cancelAt;
    probe.flag = j.preset ? 1 : 0;
    qxSetCancelFlag(&probe.flag);
    qxProgressProc proc = j.callback ? &Probe::proc : nullptr;
    const char* call = "?";
    int rc = 0;
    bool cancelled = false, ok = false;
    if (j.kind <= 2) {
        std::vector<uint8_t> mask = plane, alpha(size_t(j.w) * j.h, 0x33);
        const std::vector<uint8_t> alphaBefore = alpha;
        bool failed = false;  // a failure status the job documents
        if (j.kind == 0) {
            call = "qxMaskAlpha";
            qxtest::MaskJob r(image, mask, j.w, j.h, proc, &probe);
            rc = qxMaskAlpha(&r.req, 0, float(j.w * j.h), 255, 0, 255, 0);
            failed = rc <= -870 && rc >= -1001;
        } else if (j.kind == 1) {
            call = "qxStrokesToAlpha";
            StrokeMatteRequest r = qxtest::strokeRequest(image, mask, alpha, j.w, j.h);
            r.progProc = proc;
            r.progParam = &probe;
            rc = qxStrokesToAlpha(&r);
            failed = rc == -5 || rc == -1 || rc == -1000;
        } else {
            call = "qxRecoverForegroundFull";
            const ForegroundRequest r =
                qxtest::foregroundRequest(image, mask, out, j.w, j.h, proc, &probe);
            rc = qxRecoverForegroundFull(&r);
        }
        cancelled = rc == QX_CANCELLED;
        ok = rc == 1;
        expect(ok || cancelled || failed, "status outside the set", call);
        // The tri-map may change only when the job succeeds; the other planes are inputs.
        if (j.kind != 0 || !ok) expect(mask == plane, "an input plane changed", call);
        if (!ok) expect(alpha == alphaBefore && out == outBefore, "output written", call);
    } else {
        const QxwImage img{image.data(), j.w * 3, 3, j.w, j.h, QXW_BGR};
        QxwJob job{};
        job.cancel = &probe.flag;
        if (j.callback) {
            job.progress = &Probe::fraction;
            job.progressData = &probe;
        }
        std::vector<uint8_t> alpha(size_t(j.w) * j.h, 0x33);
        const QxwColourOut colours{out.data(), j.w * 3};
        QxwStatus s;
        if (j.kind == 3) {
            call = "qxwMatteTrimap";
            s = qxwMatteTrimap(&img, plane.data(), j.w, 255, 0, 255, 0, alpha.data(), j.w, &job);
        } else if (j.kind == 4) {
            call = "qxwMatteStrokes";
            s = qxwMatteStrokes(&img, plane.data(), j.w, QXW_ENGINE_STROKES, alpha.data(), j.w,
                                &job);
        } else if (j.kind == 5) {
            call = "qxwRecoverForeground";
            s = qxwRecoverForeground(&img, plane.data(), j.w, QXW_FG_FULL, &colours, &job);
        } else if (j.kind == 6) {
            // No model where it is looked for: the call refuses before any network is read.
            call = "qxwCutoutSubject";
            const QxwSubjectOptions none{"/nonexistent/qx-fuzz-model.onnx"};
            s = qxwCutoutSubject(&img, &none, plane.data(), j.w, j.rect[0], j.rect[1], j.rect[2],
                                 j.rect[3], alpha.data(), j.w, &colours, &job);
            expect(s == QXW_NO_MODEL || s == QXW_BAD_INPUT || (s == QXW_CANCELLED && probe.flag),
                   "not a refusal without a model", call);
        } else {
            // What the one-click cut-out does with the network's mask, run in the workflows'
            // frame as its export runs it.
            call = "cutoutFromSubject";
            using namespace qx::workflow;
            cv::Rect box(j.rect[0], j.rect[1], j.rect[2], j.rect[3]);
            box &= cv::Rect(0, 0, j.w, j.h);
            s = runEntry(&job, "", call, [&](Relay& relay) {
                const cv::Mat bgr(j.h, j.w, CV_8UC3, const_cast<uint8_t*>(image.data()));
                const cv::Mat soft(j.h, j.w, CV_8UC1, const_cast<uint8_t*>(j.soft.data()));
                const cv::Mat strokes(j.h, j.w, CV_8UC1, const_cast<uint8_t*>(plane.data()));
                cv::Mat a, fg;
                const QxwStatus r = cutoutFromSubject(bgr, soft, strokes, box, &a, &fg, relay, &job);
                if (r != QXW_OK) return r;
                copyPlaneOut(a, alpha.data(), j.w);
                // Where the user fixed a side, the alpha is that side.
                for (int y = 0; y < j.h; ++y)
                    for (int x = 0; x < j.w; ++x) {
                        const uint8_t v = plane[size_t(y) * j.w + x], got = alpha[size_t(y) * j.w + x];
                        const bool outside = !box.empty() && !box.contains(cv::Point(x, y));
                        if (v == QXW_KEEP) expect(got == 255, "a keep stroke not kept", call);
                        else if (v == QXW_CUT || outside)
                            expect(got == 0, "a cut stroke or the outside kept", call);
                    }
                return QXW_OK;
            });
        }
        cancelled = s == QXW_CANCELLED;
        ok = s == QXW_OK;
        expect(ok || cancelled || s == QXW_BAD_INPUT || s == QXW_FAILED || s == QXW_NO_MODEL,
               "status outside the set", call);
        if (!ok) {
            expect(alpha == std::vector<uint8_t>(alpha.size(), 0x33), "alpha written", call);
            expect(out == outBefore, "colours written", call);
        }
    }
    probe.finished = true;
    qxSetCancelFlag(nullptr);
    expect(image == j.image, "the image changed", call);
    if (j.preset) expect(cancelled || !ok, "a job with its flag set ran", call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const bool twoThreads = in.flag();
    const int n = in.range<int>(1, 4);
    std::vector<Job> first, second;
    for (int i = 0; i < n; ++i) first.push_back(draw(in));
    if (twoThreads)
        for (int i = 0; i < n; ++i) second.push_back(draw(in));
    std::vector<std::unique_ptr<Probe>> probes;  // alive to the end: late calls are caught
    for (size_t i = 0; i < first.size() + second.size(); ++i)
        probes.push_back(std::make_unique<Probe>());
    std::thread other;
    if (twoThreads)
        other = std::thread([&] {
            for (size_t i = 0; i < second.size(); ++i) run(second[i], *probes[first.size() + i]);
        });
    for (size_t i = 0; i < first.size(); ++i) run(first[i], *probes[i]);
    if (other.joinable()) other.join();
    return 0;
}
