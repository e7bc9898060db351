// The KD-tree drivers called directly (bench_keepcut runs the whole entry), with the figure only
// they give, the tree's leaf count, on the synthetic scene of the demo (a soft subject with
// strands, known alpha):
//  - edge band: every pixel painted keep or cut except a band about 16 pixels wide along the
//    subject's edge and its strands, as a host's edge tool leaves it;
//  - scribbles: a few keep and cut lines, the rest unpainted (the tree may refuse with -1).
// Each case runs once through both drivers: time, leaves, peak resident memory, SAD over the
// unpainted pixels against the known alpha. Sizes in megapixels come from QX_KD_MEGAPIXELS
// (default "1,6"; "6,12,24" for the scale table).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/fault.h"
#include "runtime/memory.h"
#include "keepcut/kd_drivers.h"
#include "measurement.h"
#include "workflow/demo_scene.h"
#include "workflow/workflow.h"

namespace {

struct Row {
    std::string name;
    int width = 0, height = 0, unknown = 0, leaves = 0, status = 0;
    double seconds = 0, sad = 0, peakMB = 0;
};
std::vector<Row> rows;

// The scene as a host holds it: BGRA pixels, and the stroke-coded alpha plane.
struct Job {
    cv::Mat bgra, strokes, truth;
};

Job makeJob(double megapixels, bool scribbles) {
    const int w = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 1.5)));
    const int h = static_cast<int>(std::lround(megapixels * 1e6 / w));
    const qx::workflow::DemoScene scene = qx::workflow::makeDemoScene(w, h);
    Job job;
    cv::cvtColor(scene.image, job.bgra, cv::COLOR_BGR2BGRA);
    job.truth = scene.truth;
    job.strokes = qx::workflow::encodeStrokes(scribbles
                                                  ? qx::workflow::scribbleStrokes(scene.truth)
                                                  : qx::workflow::edgeBandStrokes(scene.truth));
    return job;
}

Row runCase(const std::string& name, const Job& job, bool hiRes) {
    Row r;
    r.name = name;
    r.width = job.bgra.cols;
    r.height = job.bgra.rows;
    cv::Mat alpha = job.strokes.clone();
    cv::Mat dst(job.bgra.size(), CV_8UC4, cv::Scalar(0, 0, 0, 0));
    cv::Mat src = job.bgra, aux = job.strokes.clone();
    KeepCutRequest req = qx::workflow::wholeImageRequest(src, alpha, dst, aux);

    const qxmatte::Measurement run;
    try {
        if (hiRes) qx::computeAlphaKDTreeHiRes(&req, qx::usableMemInMB());
        else qx::computeAlphaKDTreePyramid(&req, qx::usableMemInMB());
        r.status = 1;
    } catch (const qx::Failure& f) {
        r.status = f.value();
    }
    r.seconds = run.seconds();
    r.peakMB = run.peakAboveStartMB();
    r.leaves = qx::lastKDTreeLeafCount();
    if (r.status != 1) return r;
    double sad = 0;
    for (int y = 0; y < r.height; ++y) {
        const uchar* s = job.strokes.ptr<uchar>(y);
        const uchar* a = alpha.ptr<uchar>(y);
        const uchar* t = job.truth.ptr<uchar>(y);
        for (int x = 0; x < r.width; ++x) {
            if (s[x] & 1) continue;
            sad += std::fabs(a[x] - t[x]) / 255.0;
            ++r.unknown;
        }
    }
    r.sad = sad / 1000.0;
    return r;
}

void BM_Case(benchmark::State& state, double megapixels, bool scribbles, bool hiRes) {
    const Job job = makeJob(megapixels, scribbles);
    char label[64];
    std::snprintf(label, sizeof label, "%s %s %.0fMP", scribbles ? "scribbles" : "edge band",
                  hiRes ? "hi-res" : "pyramid", megapixels);
    Row r;
    for (auto _ : state) r = runCase(label, job, hiRes);
    state.counters["leaves"] = r.leaves;
    state.counters["peakMB"] = r.peakMB;
    state.counters["SAD"] = r.sad;
    rows.push_back(r);
}

void printReport() {
    std::printf("\n%-26s %11s %9s %7s %8s %9s %9s %7s\n", "case", "size", "unknown", "leaves",
                "time s", "peak MB", "SAD", "status");
    for (const Row& r : rows) {
        char size[32];
        std::snprintf(size, sizeof size, "%dx%d", r.width, r.height);
        std::printf("%-26s %11s %9d %7d %8.2f %9.0f %9.2f %7d\n", r.name.c_str(), size, r.unknown,
                    r.leaves, r.seconds, r.peakMB, r.sad, r.status);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<double> sizes;
    const char* env = std::getenv("QX_KD_MEGAPIXELS");
    std::stringstream list(env ? env : "1,6");
    for (std::string item; std::getline(list, item, ',');) sizes.push_back(std::atof(item.c_str()));
    const char* scribbleEnv = std::getenv("QX_KD_SCRIBBLES");
    for (double mp : sizes)
        for (bool hiRes : {true, false})
            benchmark::RegisterBenchmark(("edgeband/" + std::to_string(mp)).c_str(), BM_Case, mp,
                                         false, hiRes)
                ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    if (!scribbleEnv || std::atoi(scribbleEnv) != 0)
        for (double mp : {1.0, 6.0})
            for (bool hiRes : {true, false})
                benchmark::RegisterBenchmark(("scribbles/" + std::to_string(mp)).c_str(), BM_Case,
                                             mp, true, hiRes)
                    ->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printReport();
    return 0;
}
