// What a host's progress bar sees of a long workflow job, and what the finer progress costs: the
// stroke job (the default engine) and the tri-map job on the demo scene, with strokes painted as
// a person paints them (bars 9 rows thick every 40 rows inside the sure parts, eroded by 12
// pixels, all scaled with the image), so that most pixels are undecided. Each job runs with a
// progress callback (the relay's listener: the solve runs on a thread of its own and the job's
// thread reports from its wait) and without one (the solve on the job's thread, as before).
//
//   bench_progress                                     2 MP
//   QX_PROGRESS_MEGAPIXELS=6 bench_progress            6 MP (about 10 s a job on 2 cores)
//
// Counters: reports the callback received, the longest time without one as a part of the job
// (gap), and the part of the bar reached at a quarter, half and three quarters of the job's time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "qxworkflow.h"

namespace {

using Clock = std::chrono::steady_clock;

double megapixels() {
    const char* v = std::getenv("QX_PROGRESS_MEGAPIXELS");
    const double mp = v ? std::atof(v) : 2.0;
    return mp > 0.05 ? mp : 2.0;
}

struct Scene {
    cv::Mat image, strokes, trimap;
};

const Scene& scene() {
    static const Scene s = [] {
        const double mp = megapixels();
        const int w = int(std::lround(std::sqrt(mp * 1e6 * 1.5))), h = int(std::lround(w / 1.5));
        Scene r;
        r.image.create(h, w, CV_8UC3);
        cv::Mat truth(h, w, CV_8UC1);
        const QxwColourOut out{r.image.data, static_cast<int32_t>(r.image.step)};
        qxwDemoScene(w, h, 1, &out, nullptr, 0, truth.data, static_cast<int>(truth.step), nullptr,
                     nullptr, 0);
        const double scale = std::max(1.0, std::sqrt(mp));
        const int erode = int(12 * scale + 0.5), period = int(40 * scale + 0.5);
        const int thick = int(9 * scale + 0.5);
        const cv::Mat disc = cv::getStructuringElement(
            cv::MORPH_ELLIPSE, cv::Size(2 * erode + 1, 2 * erode + 1));
        cv::Mat sureFg, sureBg;
        cv::erode(truth == 255, sureFg, disc);
        cv::erode(truth == 0, sureBg, disc);
        r.strokes = cv::Mat(truth.size(), CV_8UC1, cv::Scalar(128));
        for (int y = 0; y < h; ++y) {
            if (y % period >= thick) continue;
            r.strokes.row(y).setTo(cv::Scalar(QXW_KEEP), sureFg.row(y));
            r.strokes.row(y).setTo(cv::Scalar(QXW_CUT), sureBg.row(y));
        }
        r.trimap = r.strokes.clone();  // 255 subject, 0 background, 128 undecided
        return r;
    }();
    return s;
}

struct Timeline {
    Clock::time_point start;
    std::vector<double> seconds, fractions;
    static void record(double f, void* data) {
        auto* t = static_cast<Timeline*>(data);
        t->seconds.push_back(std::chrono::duration<double>(Clock::now() - t->start).count());
        t->fractions.push_back(f);
    }
    double at(double time) const {  // the bar at a time
        double f = 0.0;
        for (size_t i = 0; i < seconds.size() && seconds[i] <= time; ++i) f = fractions[i];
        return f;
    }
};

template <class Run>
void runJob(benchmark::State& state, Run&& run) {
    const bool withProgress = state.range(0) != 0;
    double reports = 0, gap = 0, quarter = 0, half = 0, threeQuarters = 0;
    for (auto _ : state) {
        Timeline t;
        QxwJob job{};
        if (withProgress) {
            job.progress = &Timeline::record;
            job.progressData = &t;
        }
        t.start = Clock::now();
        if (run(job) != QXW_OK) state.SkipWithError(job.message);
        const double total = std::chrono::duration<double>(Clock::now() - t.start).count();
        double last = 0.0, longest = 0.0;
        for (double s : t.seconds) longest = std::max(longest, s - last), last = s;
        longest = std::max(longest, total - last);
        reports += double(t.seconds.size());
        gap += longest / total;
        quarter += t.at(total / 4);
        half += t.at(total / 2);
        threeQuarters += t.at(3 * total / 4);
    }
    const double n = double(state.iterations());
    state.counters["reports"] = reports / n;
    state.counters["gap"] = gap / n;
    state.counters["at25"] = quarter / n;
    state.counters["at50"] = half / n;
    state.counters["at75"] = threeQuarters / n;
}

QxwImage view(const cv::Mat& image) {
    return {image.data, static_cast<int32_t>(image.step), 3, image.cols, image.rows, QXW_BGR};
}

void BM_StrokeJob(benchmark::State& state) {
    const Scene& s = scene();
    const QxwImage img = view(s.image);
    cv::Mat alpha(s.image.size(), CV_8UC1);
    runJob(state, [&](QxwJob& job) {
        return qxwMatteStrokes(&img, s.strokes.data, static_cast<int>(s.strokes.step),
                               QXW_ENGINE_STROKES, alpha.data, static_cast<int>(alpha.step), &job);
    });
}

void BM_TrimapJob(benchmark::State& state) {
    const Scene& s = scene();
    const QxwImage img = view(s.image);
    cv::Mat alpha(s.image.size(), CV_8UC1);
    runJob(state, [&](QxwJob& job) {
        return qxwMatteTrimap(&img, s.trimap.data, static_cast<int>(s.trimap.step), 255, 0, 255,
                              0, alpha.data, static_cast<int>(alpha.step), &job);
    });
}

}  // namespace

BENCHMARK(BM_StrokeJob)->ArgName("progress")->Arg(0)->Arg(1)->Iterations(3)->UseRealTime()
    ->Unit(benchmark::kSecond);
BENCHMARK(BM_TrimapJob)->ArgName("progress")->Arg(0)->Arg(1)->Iterations(3)->UseRealTime()
    ->Unit(benchmark::kSecond);

BENCHMARK_MAIN();
