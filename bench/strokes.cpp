// Strokes as a person paints them, at three sizes: the stroke engine against the older tiled
// engine and the tri-map job on the very same strokes, in one run.
//
// For each benchmark photo (skipped when the data folder is absent) the photo and its true
// alpha are scaled by --scale (1, 5 for about 12 MP, 7 for about 24 MP); keep strokes are
// horizontal bars inside the sure foreground (true alpha 255) and cut strokes inside the sure
// background (true alpha 0), both eroded by 12 pixels, bars 9 rows thick every 40 rows, all
// three figures scaled with the image. Each engine gets the stroke image through the workflow
// interface; the tri-map job reads it as a tri-map (255 subject, 0 background, the rest
// undecided). Reported: SAD (thousands) and MSE (x1000) over the unpainted pixels against the
// truth, wall time, and peak resident memory (of the run above what was resident before it, and
// of the whole process).
//
//   bench_strokes [--scale S] [--images GT01,GT04] [--engines strokes,kdtree,trimap]
//
// For a whole-process peak of one engine alone, run it with --engines naming that one. The engine
// "peer-cf" is the PyMatting library's closed-form solve of the same strokes, re-implemented in
// peer_closed_form.h (an exact factorisation: a minute and a few GB a photo at 1x).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "measurement.h"
#include "peer_closed_form.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

struct Result {
    bool ok = false;
    double sad = 0, mse = 0, seconds = 0, peakMB = 0, processPeakMB = 0;
};

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');)
        if (!item.empty()) out.push_back(item);
    return out;
}

// The bar strokes of a scaled photo: 255 keep, 0 cut, 128 unpainted.
cv::Mat barStrokes(const cv::Mat& truth, double scale) {
    const int erode = static_cast<int>(12 * scale + 0.5);
    const int period = static_cast<int>(40 * scale + 0.5);
    const int thick = static_cast<int>(9 * scale + 0.5);
    const cv::Mat disc =
        cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * erode + 1, 2 * erode + 1));
    cv::Mat sureFg, sureBg;
    cv::erode(truth == 255, sureFg, disc);
    cv::erode(truth == 0, sureBg, disc);
    cv::Mat strokes(truth.size(), CV_8UC1, cv::Scalar(128));
    for (int y = 0; y < truth.rows; ++y) {
        if (y % period >= thick) continue;
        strokes.row(y).setTo(cv::Scalar(QXW_KEEP), sureFg.row(y));
        strokes.row(y).setTo(cv::Scalar(QXW_CUT), sureBg.row(y));
    }
    return strokes;
}

Result run(const std::string& engine, const cv::Mat& image, const cv::Mat& strokes,
           const cv::Mat& truth) {
    const QxwImage img{image.data, static_cast<int32_t>(image.step), 3, image.cols, image.rows,
                       QXW_BGR};
    cv::Mat alpha(image.size(), CV_8UC1);
    QxwJob job{};
    const qxmatte::Measurement m;
    QxwStatus s;
    if (engine == "peer-cf") {
        alpha = bench::peerClosedForm(image, strokes);
        s = alpha.empty() ? QXW_FAILED : QXW_OK;
    } else if (engine == "trimap")
        s = qxwMatteTrimap(&img, strokes.data, static_cast<int>(strokes.step), 255, 0, 255, 0,
                           alpha.data, static_cast<int>(alpha.step), &job);
    else
        s = qxwMatteStrokes(&img, strokes.data, static_cast<int>(strokes.step),
                            engine == "kdtree" ? QXW_ENGINE_KDTREE : QXW_ENGINE_STROKES,
                            alpha.data, static_cast<int>(alpha.step), &job);
    Result r;
    r.seconds = m.seconds();
    r.peakMB = m.peakAboveStartMB();
    r.processPeakMB = qxmatte::peakResidentMB();
    if (s != QXW_OK) {
        std::printf("  %-8s refused: %s\n", engine.c_str(), job.message);
        return r;
    }
    const qxmatte::Accuracy a = qxmatte::measureAccuracy(alpha, truth, strokes);
    r.ok = true;
    r.sad = a.sad;
    r.mse = a.mse;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    double scale = 1.0;
    std::vector<std::string> images, engines = {"kdtree", "strokes", "trimap"};
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt == "--scale") scale = std::atof(argv[i + 1]);
        else if (opt == "--images") images = split(argv[i + 1]);
        else if (opt == "--engines") engines = split(argv[i + 1]);
    }
    const fs::path data = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(data / "input")) {
        std::printf("skipped: %s not found\n", data.c_str());
        return 0;
    }
    if (images.empty())
        for (int k = 1; k <= 10; ++k) images.push_back(k < 10 ? "GT0" + std::to_string(k) : "GT10");

    std::map<std::string, Result> total;
    std::map<std::string, int> done;
    std::printf("scale %.1f\n| image | MP | engine | SAD | MSE | s | peak MB (run / process) |\n"
                "|---|---|---|---|---|---|---|\n",
                scale);
    for (const std::string& name : images) {
        cv::Mat image = cv::imread((data / "input" / (name + ".png")).string(), cv::IMREAD_COLOR);
        cv::Mat truth =
            cv::imread((data / "gt" / (name + ".png")).string(), cv::IMREAD_GRAYSCALE);
        if (image.empty() || truth.empty()) continue;
        if (scale != 1.0) {
            const cv::Size size(static_cast<int>(image.cols * scale),
                                static_cast<int>(image.rows * scale));
            cv::resize(image, image, size, 0, 0, cv::INTER_CUBIC);
            cv::resize(truth, truth, size, 0, 0, cv::INTER_LINEAR);
        }
        const cv::Mat strokes = barStrokes(truth, scale);
        for (const std::string& engine : engines) {
            const Result r = run(engine, image, strokes, truth);
            std::printf("| %s | %.1f | %s | %s%.2f | %.2f | %.2f | %.0f / %.0f |\n", name.c_str(),
                        image.total() / 1e6, engine.c_str(), r.ok ? "" : "refused ", r.sad,
                        r.mse, r.seconds, r.peakMB, r.processPeakMB);
            std::fflush(stdout);
            if (!r.ok) continue;
            Result& t = total[engine];
            t.sad += r.sad;
            t.mse += r.mse;
            t.seconds += r.seconds;
            t.peakMB = std::max(t.peakMB, r.peakMB);
            t.processPeakMB = std::max(t.processPeakMB, r.processPeakMB);
            ++done[engine];
        }
    }
    std::printf("\n| engine | photos | mean SAD | mean MSE | total s | max peak MB (run / process) |\n"
                "|---|---|---|---|---|---|\n");
    for (const std::string& engine : engines) {
        const int n = done[engine];
        const Result& t = total[engine];
        std::printf("| %s | %d | %.2f | %.2f | %.2f | %.0f / %.0f |\n", engine.c_str(), n,
                    n ? t.sad / n : 0.0, n ? t.mse / n : 0.0, t.seconds, t.peakMB,
                    t.processPeakMB);
    }
    return 0;
}
