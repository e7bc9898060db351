// Tri-map matting beside its peer: our workflow (qxwMatteTrimap, "today"), the closed-form job it
// ran before the flows (qxMaskAlphaPlain, "closed"), OpenCV contrib's information-flow matting (cv::alphamat::infoFlow, run as a black box) and the flows' solve
// (src/flows) in chosen combinations of its terms, on the alpha-matting benchmark photos
// (skipped when ../shared/data/alphamatting is absent), in one run.
//
// Two tri-map sets: the benchmark's own (set 1), and one made from each truth (set 2): undecided
// where 0 < truth < 255, grown by a disc of radius 12, the rest decided by the truth. Set 2's
// band is wider and follows the truth's soft parts rather than a hand-drawn band.
//
// Per set and photo: SAD (thousands, over the undecided pixels), MSE (times 1000) and seconds
// of every method, their means (total time), and each mean over infoFlow's.
//
//   bench_matting_peers [--sets 1,2] [--images GT01,GT04] [--methods today,infoflow,all,...]
//                       [--method NAME=key:value,...] [--cache DIR] [--radius 12]
//
// A flow method is written as weights and options: cm, l, uu, ku (the terms' weights), kcm, scm,
// rcm, reg, dims (colour mixture: K, spatial weight, search radius, regularisation, rebuilt
// dimensions), kku, sku, rku (known-to-unknown), kuu, suu (intra-unknown), eps (local
// Laplacian), ccm, cku, cuu (points a neighbour search compares, 0 exact), tol, it (solver), start (1: from the known-to-unknown estimate), hard (the mask
// job's hard-value rule), coarse (pixels a side of the preconditioner's aggregates, 0: the
// diagonal alone), cmin (fewest aggregates for a coarse level). --cache DIR keeps infoFlow's
// results (and times) between runs.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#ifdef QX_HAVE_ALPHAMAT
#include <opencv2/alphamat.hpp>
#endif

#include "trimap_jobs.h"
#include "flows/flow_solve.h"
#include "measurement.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"

namespace fs = std::filesystem;

namespace {

enum class Kind { Today, Closed, InfoFlow, Flow };

struct Method {
    std::string name;
    Kind kind = Kind::Flow;
    std::string recipe;
    qx::flows::FlowOptions options;
};

struct Result {
    double sad = 0, mse = 0, seconds = 0, cpu = 0;
    bool ok = false;
};

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::stringstream in(s);
    std::string item;
    while (std::getline(in, item, sep))
        if (!item.empty()) out.push_back(item);
    return out;
}

// Options of a flow method from "key:value,key:value".
bool parseFlow(const std::string& recipe, qx::flows::FlowOptions& o) {
    for (const std::string& kv : split(recipe, ',')) {
        const size_t colon = kv.find(':');
        if (colon == std::string::npos) return false;
        const std::string k = kv.substr(0, colon);
        const double v = std::atof(kv.c_str() + colon + 1);
        if (k == "cm") o.weights.colourMixture = v;
        else if (k == "l") o.weights.local = v;
        else if (k == "uu") o.weights.unknownUnknown = v;
        else if (k == "ku") o.weights.knownUnknown = v;
        else if (k == "kcm") o.mixture.neighbours = int(v);
        else if (k == "scm") o.mixture.spatialWeight = float(v);
        else if (k == "rcm") o.mixture.searchRadius = int(v);
        else if (k == "reg") o.mixture.regularisation = v;
        else if (k == "dims") o.mixture.rebuildDims = int(v);
        else if (k == "kku") o.known.neighbours = int(v);
        else if (k == "sku") o.known.spatialWeight = float(v);
        else if (k == "rku") o.known.searchRadius = int(v);
        else if (k == "regku") o.known.regularisation = v;
        else if (k == "kuu") o.intra.neighbours = int(v);
        else if (k == "suu") o.intra.spatialWeight = float(v);
        else if (k == "ccm") o.mixture.maxChecks = int(v);
        else if (k == "cku") o.known.maxChecks = int(v);
        else if (k == "cuu") o.intra.maxChecks = int(v);
        else if (k == "eps") o.localEpsilon = v;
        else if (k == "tol") o.tolerance = v;
        else if (k == "it") o.maxIterations = int(v);
        else if (k == "start") o.startFromEstimate = v != 0;
        else if (k == "hard") o.hardValueRule = v != 0;
        else if (k == "coarse") o.coarse.aggregate = int(v);
        else if (k == "cmin") o.coarse.minUnknowns = int(v);
        else if (k == "cdrop") o.coarse.dropTolerance = v;
        else if (k == "cbytes") o.coarse.factorBytesPerUnknown = v;
        else return false;
    }
    return true;
}

// The named candidates: each term beside the local Laplacian, and all of them.
const std::map<std::string, std::string>& presets() {
    static const std::map<std::string, std::string> p = {
        {"local", "cm:0,l:1,uu:0,ku:0"},
        {"cm", "cm:1,l:0,uu:0,ku:0"},
        {"cm+l", "cm:1,l:1,uu:0,ku:0"},
        {"ku+l", "cm:0,l:1,uu:0,ku:0.05"},
        {"uu+l", "cm:0,l:1,uu:0.01,ku:0"},
        {"all", "cm:1,l:1,uu:0.01,ku:0.05,kcm:20"},
    };
    return p;
}

Result runToday(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha) {
    Result r;
    const auto t = std::chrono::steady_clock::now();
    std::string message;
    r.ok = bench::workflowTrimapJob(image, trimap, alpha, &message);
    r.seconds = qxmatte::secondsSince(t);
    if (!r.ok) std::fprintf(stderr, "workflow: %s\n", message.c_str());
    return r;
}

// The closed-form job the workflows ran before the flows (qxMaskAlphaPlain) on the whole photo.
Result runClosed(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha) {
    Result r;
    const auto t = std::chrono::steady_clock::now();
    r.ok = bench::closedFormJob(image, trimap, alpha);
    r.seconds = qxmatte::secondsSince(t);
    return r;
}

Result runInfoFlow(const cv::Mat& image, const cv::Mat& trimap, cv::Mat& alpha,
                   const std::string& cacheKey, const fs::path& cache) {
    Result r;
    const fs::path png = cache.empty() ? fs::path() : cache / (cacheKey + ".png");
    const fs::path txt = cache.empty() ? fs::path() : cache / (cacheKey + ".txt");
    if (!cache.empty() && fs::exists(png) && fs::exists(txt)) {
        alpha = cv::imread(png.string(), cv::IMREAD_GRAYSCALE);
        std::ifstream(txt) >> r.seconds;
        r.ok = !alpha.empty();
        return r;
    }
#ifdef QX_HAVE_ALPHAMAT
    const auto t = std::chrono::steady_clock::now();
    cv::Mat out;
    cv::alphamat::infoFlow(image, trimap, out);
    r.seconds = qxmatte::secondsSince(t);
    if (out.type() != CV_8UC1) out.convertTo(alpha, CV_8UC1, out.depth() == CV_8U ? 1.0 : 255.0);
    else alpha = out;
    r.ok = true;
    if (!cache.empty()) {
        fs::create_directories(cache);
        cv::imwrite(png.string(), alpha);
        std::ofstream(txt) << r.seconds << "\n";
    }
#else
    (void)image;
    (void)trimap;
#endif
    return r;
}

// The flows' solve on the workflow's box (qxMaskBBox), pasted into a full-size alpha.
Result runFlow(const cv::Mat& image, const cv::Mat& trimap, const qx::flows::FlowOptions& o,
               cv::Mat& alpha, qx::flows::FlowStats& stats) {
    Result r;
    const auto t = std::chrono::steady_clock::now();
    int left = 0, boxW = 0, top = 0, boxH = 0, fg = 0, bg = 0;
    qxMaskBBox(0, trimap.data, static_cast<int>(trimap.step), image.cols, image.rows, &left, &boxW,
               &top, &boxH, &fg, &bg, 0, 255, 0);
    alpha.create(image.size(), CV_8UC1);
    for (int y = 0; y < image.rows; ++y)
        for (int x = 0; x < image.cols; ++x) {
            const uchar v = trimap.at<uchar>(y, x);
            alpha.at<uchar>(y, x) = v >= 255 ? 255 : v <= 0 ? 0 : v;
        }
    if (boxW > 0 && boxH > 0) {
        const cv::Rect box(left, top, boxW, boxH);
        std::vector<cv::Mat> planes;
        cv::split(image(box), planes);
        const cv::Mat tri = trimap(box).clone();
        qx::flows::FlowImage fi;
        fi.width = boxW;
        fi.height = boxH;
        for (int c = 0; c < 3; ++c) fi.planes[c] = planes[size_t(c)].data;
        fi.planeStep = static_cast<int>(planes[0].step);
        fi.tri = tri.data;
        fi.triStep = static_cast<int>(tri.step);
        fi.referenceWidth = image.cols;
        fi.referenceHeight = image.rows;
        cv::Mat out(boxH, boxW, CV_8UC1);
        qx::flows::flowAlpha(fi, o, out.data, static_cast<int>(out.step), &stats);
        out.copyTo(alpha(box));
    }
    r.seconds = qxmatte::secondsSince(t);
    r.ok = true;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path dir = fs::path(QX_DATA_DIR) / "alphamatting";
    if (!fs::exists(dir / "input")) {
        std::printf("matting peers: %s is absent, nothing to measure\n", dir.c_str());
        return 0;
    }
    std::vector<int> sets = {1, 2};
    std::vector<std::string> only, methodNames = {"today", "closed", "infoflow", "local", "cm+l", "ku+l",
                                                  "uu+l", "all"};
    std::map<std::string, std::string> custom;
    std::vector<std::string> customOrder;
    fs::path cache;
    int radius = 12;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (a == "--sets") {
            sets.clear();
            for (const auto& s : split(next(), ',')) sets.push_back(std::atoi(s.c_str()));
        } else if (a == "--images") {
            only = split(next(), ',');
        } else if (a == "--methods") {
            methodNames = split(next(), ',');
        } else if (a == "--method") {
            const std::string m = next();
            const size_t eq = m.find('=');
            if (eq == std::string::npos) {
                std::fprintf(stderr, "--method NAME=key:value,...\n");
                return 2;
            }
            custom[m.substr(0, eq)] = m.substr(eq + 1);
            customOrder.push_back(m.substr(0, eq));
        } else if (a == "--cache") {
            cache = next();
        } else if (a == "--radius") {
            radius = std::atoi(next().c_str());
        } else if (a == "--verbose") {
            verbose = true;
        } else {
            std::fprintf(stderr, "unknown argument %s\n", a.c_str());
            return 2;
        }
    }
    for (const auto& c : customOrder)
        if (std::find(methodNames.begin(), methodNames.end(), c) == methodNames.end())
            methodNames.push_back(c);

    std::vector<Method> methods;
    for (const std::string& name : methodNames) {
        Method m;
        m.name = name;
        if (name == "today") m.kind = Kind::Today;
        else if (name == "closed") m.kind = Kind::Closed;
        else if (name == "infoflow") m.kind = Kind::InfoFlow;
        else {
            m.recipe = custom.count(name) ? custom[name]
                     : presets().count(name) ? presets().at(name) : std::string();
            if (m.recipe.empty() || !parseFlow(m.recipe, m.options)) {
                std::fprintf(stderr, "unknown method %s\n", name.c_str());
                return 2;
            }
        }
#ifndef QX_HAVE_ALPHAMAT
        if (m.kind == Kind::InfoFlow && cache.empty()) continue;
#endif
        methods.push_back(m);
    }

    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir / "input"))
        if (e.path().extension() == ".png") {
            const std::string stem = e.path().stem().string();
            if (only.empty() || std::find(only.begin(), only.end(), stem) != only.end())
                names.push_back(stem);
        }
    std::sort(names.begin(), names.end());

    for (const Method& m : methods)
        if (m.kind == Kind::Flow) std::printf("%-10s %s\n", m.name.c_str(), m.recipe.c_str());

    for (int set : sets) {
        // results[method][photo]
        std::vector<std::vector<Result>> results(methods.size(), std::vector<Result>(names.size()));
        std::vector<long> unknowns(names.size(), 0);
        for (size_t i = 0; i < names.size(); ++i) {
            const std::string file = names[i] + ".png";
            const cv::Mat image = cv::imread((dir / "input" / file).string(), cv::IMREAD_COLOR);
            const cv::Mat truth = cv::imread((dir / "gt" / file).string(), cv::IMREAD_GRAYSCALE);
            cv::Mat trimap = set == 1
                                 ? cv::imread((dir / "trimap" / file).string(), cv::IMREAD_GRAYSCALE)
                                 : bench::truthTrimap(truth, radius);
            if (image.empty() || truth.empty() || trimap.empty()) continue;
            for (size_t k = 0; k < methods.size(); ++k) {
                const Method& m = methods[k];
                cv::Mat alpha;
                Result r;
                qx::flows::FlowStats stats;
                const double cpu0 = qxmatte::processCpuSeconds();
                if (m.kind == Kind::Today) r = runToday(image, trimap, alpha);
                else if (m.kind == Kind::Closed) r = runClosed(image, trimap, alpha);
                else if (m.kind == Kind::InfoFlow)
                    r = runInfoFlow(image, trimap, alpha,
                                    "set" + std::to_string(set) + "_r" + std::to_string(radius) +
                                        "_" + names[i],
                                    cache);
                else r = runFlow(image, trimap, m.options, alpha, stats);
                r.cpu = m.kind == Kind::InfoFlow ? 0.0 : qxmatte::processCpuSeconds() - cpu0;
                if (r.ok) {
                    const qxmatte::Accuracy a = qxmatte::measureAccuracy(alpha, truth, trimap);
                    r.sad = a.sad;
                    r.mse = a.mse;
                    unknowns[i] = a.pixels;
                }
                if (verbose && m.kind == Kind::Flow)
                    std::fprintf(stderr,
                                 "set %d %s %-8s n=%d it=%d res=%.1e conf %.3f  cm %.3f ku %.3f uu %.3f l %.3f "
                                 "solve %.3f (coarse %d, %zu entries, %.3f)  total %.3f  SAD %.2f\n",
                                 set, names[i].c_str(), m.name.c_str(), stats.unknowns,
                                 stats.iterations, stats.relativeResidual, stats.meanConfidence,
                                 stats.seconds[0],
                                 stats.seconds[1], stats.seconds[2], stats.seconds[3],
                                 stats.seconds[4], stats.coarseUnknowns,
                                 stats.coarseFactorEntries, stats.coarseSeconds, r.seconds, r.sad);
                results[k][i] = r;
            }
        }

        const char* what[4] = {"SAD", "MSE", "seconds", "processor seconds (infoFlow not measured)"};
        for (int q = 0; q < 4; ++q) {
            std::printf("\nset %d (%s), %s\n%-8s %8s", set,
                        set == 1 ? "benchmark tri-maps" : "truth band, disc radius",
                        what[q], "photo", "unknown");
            for (const Method& m : methods) std::printf(" %10s", m.name.c_str());
            std::printf("\n");
            std::vector<double> sum(methods.size(), 0.0);
            std::vector<int> count(methods.size(), 0);
            for (size_t i = 0; i < names.size(); ++i) {
                std::printf("%-8s %8ld", names[i].c_str(), unknowns[i]);
                for (size_t k = 0; k < methods.size(); ++k) {
                    const Result& r = results[k][i];
                    const double v = q == 0 ? r.sad : q == 1 ? r.mse : q == 2 ? r.seconds : r.cpu;
                    if (r.ok) {
                        std::printf(" %10.2f", v);
                        sum[k] += v;
                        ++count[k];
                    } else {
                        std::printf(" %10s", "-");
                    }
                }
                std::printf("\n");
            }
            std::printf("%-8s %8s", q >= 2 ? "total" : "mean", "");
            for (size_t k = 0; k < methods.size(); ++k)
                std::printf(" %10.3f", q >= 2 ? sum[k] : count[k] ? sum[k] / count[k] : 0.0);
            std::printf("\n");
            size_t peer = methods.size();
            for (size_t k = 0; k < methods.size(); ++k)
                if (methods[k].kind == Kind::InfoFlow) peer = k;
            if (peer < methods.size() && sum[peer] > 0 && q < 3) {
                std::printf("%-17s", "/ infoFlow");
                for (size_t k = 0; k < methods.size(); ++k)
                    std::printf(" %10.3f", count[k] == count[peer] ? sum[k] / sum[peer] : 0.0);
                std::printf("\n");
            }
        }
        std::fflush(stdout);
    }
    return 0;
}
