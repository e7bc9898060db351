// qxmatte demo: a synthetic scene with a known alpha and foreground through the tri-map and the
// keep-cut workflows, measured.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <opencv2/imgproc.hpp>

#include "../measurement.h"
#include "../cli.h"

namespace qxmatte {

// The demo's folder, checked (and made, if need be) before any work; when the demo fails, a
// folder it made is taken away again (it is still empty then: outputs are written all or none).
class DemoFolder {
public:
    explicit DemoFolder(std::string dir) : dir_(std::move(dir)) {}
    ~DemoFolder() {
        std::error_code ec;
        if (made_ && !kept_) std::filesystem::remove(dir_, ec);  // only ever removes it empty
    }
    std::string prepare() {
        namespace fs = std::filesystem;
        std::error_code ec;
        if (!fs::exists(dir_, ec)) {
            fs::create_directories(dir_, ec);
            if (ec) return dir_ + ": cannot create the folder (" + ec.message() + ")";
            made_ = true;
        }
        if (!fs::is_directory(dir_, ec)) return dir_ + ": cannot write the images (not a folder)";
        if (access(dir_.c_str(), W_OK | X_OK) != 0)
            return dir_ + ": cannot write the images (the folder is not writable)";
        return {};
    }
    void keep() { kept_ = true; }

private:
    std::string dir_;
    bool made_ = false, kept_ = false;
};

// The demo's new background, and a subject laid over it with an alpha.
cv::Mat makeNewBackground(int width, int height) {
    cv::Mat bg(height, width, CV_8UC3);
    for (int y = 0; y < height; ++y) {
        auto* row = bg.ptr<cv::Vec3b>(y);
        for (int x = 0; x < width; ++x)
            row[x] = cv::Vec3b(cv::saturate_cast<uchar>(200 - y * 120 / height),
                               cv::saturate_cast<uchar>(60 + x * 60 / width),
                               cv::saturate_cast<uchar>(90 + y * 100 / height));
    }
    return bg;
}


cv::Mat overNewBackground(const cv::Mat& bgr, const cv::Mat& alpha) {
    cv::Mat a, f, b, out;
    cv::cvtColor(alpha, a, cv::COLOR_GRAY2BGR);
    a.convertTo(a, CV_32FC3, 1.0 / 255.0);
    bgr.convertTo(f, CV_32FC3);
    makeNewBackground(bgr.cols, bgr.rows).convertTo(b, CV_32FC3);
    cv::Mat(f.mul(a) + b.mul(cv::Scalar::all(1.0) - a)).convertTo(out, CV_8UC3);
    return out;
}

int runDemo(int argc, char** argv, bool showProgress) {
    std::string dir = "qxmatte-demo";
    double megapixels = 1.08;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-o" && i + 1 < argc) {
            dir = argv[++i];
        } else if (a == "--megapixels" && i + 1 < argc) {
            char* end = nullptr;
            megapixels = std::strtod(argv[++i], &end);
            if (*end || !(megapixels >= 0.01 && megapixels <= 100.0))
                return fail(kExitUsage, "--megapixels takes 0.01 to 100");
        } else if (a == "-q") {
            showProgress = false;
        } else {
            return fail(kExitUsage, "unknown or incomplete option " + a);
        }
    }
    DemoFolder folder(dir);
    std::string err = folder.prepare();
    const char* const names[] = {"image", "trimap", "alpha", "truth", "composite", "strokes",
                                 "keepcut_alpha", "keepcut_foreground", "keepcut_composite"};
    std::vector<Output> outputs;
    for (const char* name : names) outputs.push_back({dir + "/" + name + ".png"});
    if (err.empty()) err = checkOutputs(outputs, {});
    if (!err.empty()) return fail(kExitOutput, err);
    // 4:3, 1200 x 900 at the default size.
    const int width = std::max(40, static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 4 / 3))));
    const int height = width * 3 / 4;
    std::printf("demo: synthetic %dx%d scene with hair-like strands, known alpha and foreground\n",
                width, height);
    struct {
        cv::Mat image, trimap, truth, foreground;
    } scene{cv::Mat(height, width, CV_8UC3), cv::Mat(height, width, CV_8UC1),
            cv::Mat(height, width, CV_8UC1), cv::Mat(height, width, CV_8UC3)};
    cv::Mat strokes(height, width, CV_8UC1);
    const QxwColourOut imageOut{scene.image.data, static_cast<int32_t>(scene.image.step)};
    const QxwColourOut fgOut{scene.foreground.data, static_cast<int32_t>(scene.foreground.step)};
    qxwDemoScene(width, height, 7, &imageOut, scene.trimap.data, static_cast<int>(scene.trimap.step),
                 scene.truth.data, static_cast<int>(scene.truth.step), &fgOut, strokes.data,
                 static_cast<int>(strokes.step));
    const QxwImage img = imageOf(scene.image);

    // 1. Tri-map matting.
    int left = 0, boxWidth = 0, top = 0, boxHeight = 0, fgCount = 0, bgCount = 0;
    qxMaskBBox(0, scene.trimap.data, static_cast<int>(scene.trimap.step), width, height, &left,
               &boxWidth, &top, &boxHeight, &fgCount, &bgCount, 0, 255, 0);
    cv::Mat alpha(scene.image.size(), CV_8UC1);
    qxmatte::Measurement run;
    Job job(showProgress);  // one bar for both jobs
    {
        job.stage(0.0, 0.4);
        const QxwStatus s = qxwMatteTrimap(&img, scene.trimap.data,
                                           static_cast<int>(scene.trimap.step), 255, 0, 255, 0,
                                           alpha.data, static_cast<int>(alpha.step), job);
        if (s != QXW_OK) return jobFailure("demo", s, job.job);
    }
    job.clear();
    const qxmatte::Accuracy acc = qxmatte::measureAccuracy(alpha, scene.truth, scene.trimap);
    std::printf("tri-map:  box %dx%d at (%d,%d), %d undecided pixels, solved in %.2f s, "
                "peak %.0f MB\n",
                boxWidth, boxHeight, left, top, boxWidth * boxHeight - fgCount - bgCount,
                run.seconds(), qxmatte::peakResidentMB());
    std::printf("accuracy over the undecided pixels: SAD %.3f (thousands), MSE %.3f (x1000)\n",
                acc.sad, acc.mse);

    // 2. Keep-cut matting with the stroke engine and foreground recovery, from strokes as an
    // edge-band tool leaves them.
    cv::Mat kalpha(scene.image.size(), CV_8UC1), kfg;
    qxmatte::Measurement krun;
    {
        job.stage(0.4, 0.4 + 0.6 * kSolveShare);
        QxwStatus s = qxwMatteStrokes(&img, strokes.data, static_cast<int>(strokes.step),
                                      QXW_ENGINE_STROKES, kalpha.data,
                                      static_cast<int>(kalpha.step), job);
        job.stage(0.4 + 0.6 * kSolveShare, 1.0);
        if (s == QXW_OK) s = recover(scene.image, kalpha, job, &kfg);
        if (s != QXW_OK) return jobFailure("demo: keep-cut", s, job.job);
    }
    job.clear();
    const double seconds = krun.seconds(), peak = qxmatte::peakResidentMB();
    const qxmatte::Accuracy kacc = qxmatte::measureAccuracy(kalpha, scene.truth, strokes);
    std::printf("keep-cut: edge-band strokes, alpha and foreground in %.2f s, peak %.0f MB\n",
                seconds, peak);
    std::printf("keep-cut accuracy over the unpainted pixels: SAD %.3f (thousands), MSE %.3f "
                "(x1000)\n",
                kacc.sad, kacc.mse);
    std::printf("foreground error (thousands): %.3f recovered, %.3f naive (the image's colours)\n",
                qxmatte::foregroundError(kfg, scene.foreground, scene.truth),
                qxmatte::foregroundError(scene.image, scene.foreground, scene.truth));

    const cv::Mat composite = overNewBackground(scene.foreground, alpha);
    const cv::Mat recomposite = overNewBackground(kfg, kalpha);
    const cv::Mat images[] = {scene.image, scene.trimap, alpha, scene.truth, composite,
                              strokes, kalpha, kfg, recomposite};  // as in names
    std::vector<std::pair<std::string, cv::Mat>> files;
    for (size_t i = 0; i < outputs.size(); ++i) files.emplace_back(outputs[i].path, images[i]);
    const int written = writeAll(files);
    if (written != kExitOk) return written;
    folder.keep();
    std::printf("wrote %s/{image,trimap,alpha,truth,composite,strokes,keepcut_alpha,"
                "keepcut_foreground,keepcut_composite}.png\n",
                dir.c_str());
    return 0;
}

}  // namespace qxmatte
