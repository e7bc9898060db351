// qxmatte: alpha mattes from the command line, through the library's C interface.
//
//   qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N] [--levels HIGH LOW]
//                  [--cutout OUT.png] [-q]
//   qxmatte keepcut IMAGE [STROKES] -o ALPHA.png [--keep X0,Y0,X1,Y1,R] [--cut ...]
//                   [--pyramid] [--foreground FG.png] [--cutout OUT.png] [-q]
//   qxmatte foreground IMAGE ALPHA -o FG.png [--method least-squares|sampling]
//                      [--cutout OUT.png]
//   qxmatte grabcut IMAGE --rect X,Y,W,H [--strokes S.png] [--keep/--cut X0,Y0,X1,Y1,R]...
//                   -o SELECTION.png [--band N] [--trimap T.png] [-q]
//   qxmatte cutout IMAGE --rect X,Y,W,H [--strokes S.png] [--keep/--cut ...]... [--band N]
//                  -o OUT.png [--alpha A.png] [-q]
//   qxmatte demo [-o DIR] [--megapixels N] [-q]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "demo_scene.h"
#include "foreground.h"
#include "grabcut.h"
#include "keepcut.h"
#include "peak_memory.h"
#include "workflow.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage:\n"
                 "  qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N]\n"
                 "                 [--levels HIGH LOW] [--cutout OUT.png] [-q]\n"
                 "  qxmatte keepcut IMAGE [STROKES] -o ALPHA.png [--keep X0,Y0,X1,Y1,R]...\n"
                 "                  [--cut X0,Y0,X1,Y1,R]... [--pyramid] [--foreground FG.png]\n"
                 "                  [--cutout OUT.png] [-q]\n"
                 "  qxmatte foreground IMAGE ALPHA -o FG.png [--method least-squares|sampling]\n"
                 "                     [--cutout OUT.png]\n"
                 "  qxmatte grabcut IMAGE --rect X,Y,W,H [--strokes S.png] [--keep ...] [--cut ...]\n"
                 "                  -o SELECTION.png [--band N] [--trimap T.png] [-q]\n"
                 "  qxmatte cutout IMAGE --rect X,Y,W,H [--strokes S.png] [--keep ...] [--cut ...]\n"
                 "                 [--band N] -o OUT.png [--alpha A.png] [-q]\n"
                 "  qxmatte demo [-o DIR] [--megapixels N] [-q]\n"
                 "\n"
                 "trimap:     alpha from a colour image and a tri-map (codes <= bg-code\n"
                 "            background, >= fg-code foreground, others undecided; defaults 0\n"
                 "            and 255). --cutout writes the subject's recovered colours + alpha.\n"
                 "keepcut:    alpha from keep and cut strokes. STROKES is a grey image of the\n"
                 "            image's size: 255 keep (subject), 0 cut (background), any other\n"
                 "            value unpainted. --keep/--cut paint straight strokes of radius R\n"
                 "            (repeatable; STROKES may then be left out).\n"
                 "            --pyramid solves at half size and doubles back.\n"
                 "            --foreground writes the recovered colours, --cutout the RGBA\n"
                 "            cut-out with them.\n"
                 "foreground: the subject's true colours under an alpha from any source;\n"
                 "            --method sampling picks nearby sample pairs instead of the\n"
                 "            default least-squares solve.\n"
                 "grabcut:    a hard selection of the subject inside the rectangle (strokes as\n"
                 "            in keepcut, image or vectors); --trimap writes a tri-map with an\n"
                 "            undecided band of N pixels (default 1%% of the longer side, at\n"
                 "            least 10) on its edge.\n"
                 "cutout:     rectangle to RGBA cut-out: GrabCut, the edge band, alpha on the\n"
                 "            band, recovered colours; --alpha also writes the alpha.\n"
                 "demo:       a synthetic scene with a known alpha and foreground, through the\n"
                 "            tri-map and the keep-cut workflows; writes the images to DIR\n"
                 "            (default qxmatte-demo) and prints accuracy, time and memory.\n"
                 "            --megapixels scales the scene (default about 1).\n"
                 "-q:         no progress bar.\n");
}

int fail(const std::string& message) {
    std::fprintf(stderr, "qxmatte: %s\n", message.c_str());
    return 1;
}

bool parseInt(const char* text, int lo, int hi, int* out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!text[0] || *end || v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

// Reads an image; an empty string when it worked, otherwise the reason.
std::string readImage(const std::string& path, int flags, cv::Mat* out) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) return path + ": no such file";
    try {
        *out = cv::imread(path, flags);
    } catch (const cv::Exception&) {
        out->release();
    }
    if (out->empty()) return path + ": not a readable image (PNG, JPEG or TIFF)";
    if (out->depth() != CV_8U) out->convertTo(*out, CV_8U, 1.0 / 257.0);
    return {};
}

// Reads a colour image and a grey plane of the same size; an empty string when it worked.
std::string readImageAndPlane(const std::string& imagePath, const std::string& planePath,
                              const char* planeWhat, cv::Mat* image, cv::Mat* plane) {
    std::string err = readImage(imagePath, cv::IMREAD_COLOR, image);
    if (!err.empty()) return err;
    err = readImage(planePath, cv::IMREAD_GRAYSCALE, plane);
    if (!err.empty()) return err;
    if (image->size() != plane->size())
        return planePath + ": " + planeWhat + " is " + std::to_string(plane->cols) + "x" +
               std::to_string(plane->rows) + ", image is " + std::to_string(image->cols) + "x" +
               std::to_string(image->rows);
    return {};
}

// Checks before any work that each named output can be written: a known image format and an
// existing folder. An empty string when they can.
std::string checkOutputs(const std::vector<std::string>& paths) {
    for (const auto& path : paths) {
        if (path.empty()) continue;
        bool known = false;
        try {
            known = cv::haveImageWriter(path);
        } catch (const cv::Exception&) {
            known = false;
        }
        if (!known) return path + ": cannot write the image (unknown extension)";
        const std::filesystem::path parent = std::filesystem::path(path).parent_path();
        std::error_code ec;
        if (!parent.empty() && !std::filesystem::is_directory(parent, ec))
            return path + ": cannot write the image (no folder " + parent.string() + ")";
    }
    return {};
}

// Writes every named image or none: on a failure the files written so far are removed.
std::string writeAll(const std::vector<std::pair<std::string, cv::Mat>>& files) {
    std::string err;
    std::vector<std::string> done;
    for (const auto& [path, mat] : files) {
        if (path.empty()) continue;
        if (!qxmatte::writeImageAtomically(path, mat, &err)) {
            std::error_code ec;
            for (const auto& d : done) std::filesystem::remove(d, ec);
            return err;
        }
        done.push_back(path);
    }
    return {};
}

// --keep/--cut X0,Y0,X1,Y1,R: false when the text is off.
bool addVectorStroke(const std::string& option, const std::string& text,
                     std::vector<qxmatte::VectorStroke>* list) {
    qxmatte::VectorStroke v;
    if (!qxmatte::parseVectorStroke(text, option == "--keep", &v)) return false;
    list->push_back(v);
    return true;
}
const char* const kVectorStrokeUsage = " takes X0,Y0,X1,Y1,R (integers, R at least 0)";

// Paints vector strokes into the stroke image, making an unpainted one first when there is none.
void applyVectorStrokes(const cv::Size& size, const std::vector<qxmatte::VectorStroke>& list,
                        cv::Mat* strokes) {
    if (list.empty()) return;
    if (strokes->empty()) *strokes = cv::Mat(size, CV_8UC1, cv::Scalar(128));
    qxmatte::paintStrokes(*strokes, list);
}

int runTrimap(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string output, cutout;
    qxmatte::MatteOptions opt;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        auto need = [&](int n) {
            if (i + n >= argc) return false;
            return true;
        };
        if (a == "-o" && need(1)) {
            output = argv[++i];
        } else if (a == "--cutout" && need(1)) {
            cutout = argv[++i];
        } else if (a == "--fg-code" && need(1)) {
            if (!parseInt(argv[++i], 1, 255, &opt.fgCode)) return fail("--fg-code takes 1 to 255");
        } else if (a == "--bg-code" && need(1)) {
            if (!parseInt(argv[++i], 0, 254, &opt.bgCode)) return fail("--bg-code takes 0 to 254");
        } else if (a == "--levels" && need(2)) {
            if (!parseInt(argv[i + 1], 0, 255, &opt.levelHigh) ||
                !parseInt(argv[i + 2], 0, 255, &opt.levelLow))
                return fail("--levels takes HIGH LOW, each 0 to 255");
            i += 2;
        } else if (a == "-q") {
            showProgress = false;
        } else if (!a.empty() && a[0] == '-') {
            return fail("unknown or incomplete option " + a);
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() != 2 || output.empty()) {
        usage(stderr);
        return 2;
    }
    if (opt.bgCode >= opt.fgCode) return fail("--bg-code must be below --fg-code");
    std::string err = checkOutputs({output, cutout});
    if (!err.empty()) return fail(err);
    cv::Mat image, trimap;
    err = readImageAndPlane(positional[0], positional[1], "tri-map", &image, &trimap);
    if (!err.empty()) return fail(err);
    opt.progress = showProgress;
    const qxmatte::MatteResult r = qxmatte::matteWithTrimap(image, trimap, opt);
    if (!r.ok) return fail(positional[1] + ": " + r.error);
    cv::Mat cut;
    if (!cutout.empty())
        cut = qxmatte::makeCutout(qxmatte::recoverForeground(image, r.alpha), r.alpha);
    err = writeAll({{output, r.alpha}, {cutout, cut}});
    return err.empty() ? 0 : fail(err);
}

int runKeepCut(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::vector<qxmatte::VectorStroke> vectors;
    std::string output, foreground, cutout;
    qxmatte::KeepCutOptions opt;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) {
            output = argv[++i];
        } else if (a == "--foreground" && more) {
            foreground = argv[++i];
        } else if (a == "--cutout" && more) {
            cutout = argv[++i];
        } else if ((a == "--keep" || a == "--cut") && more) {
            if (!addVectorStroke(a, argv[++i], &vectors)) return fail(a + kVectorStrokeUsage);
        } else if (a == "--pyramid") {
            opt.hiRes = false;
        } else if (a == "-q") {
            showProgress = false;
        } else if (!a.empty() && a[0] == '-') {
            return fail("unknown or incomplete option " + a);
        } else {
            positional.push_back(a);
        }
    }
    // The stroke image may be left out when the strokes come as vectors.
    if (positional.empty() || positional.size() > 2 || output.empty() ||
        (positional.size() == 1 && vectors.empty())) {
        usage(stderr);
        return 2;
    }
    std::string err = checkOutputs({output, foreground, cutout});
    if (!err.empty()) return fail(err);
    cv::Mat image, strokes;
    const std::string& strokeSource = positional.size() == 2 ? positional[1] : positional[0];
    if (positional.size() == 2) {
        err = readImageAndPlane(positional[0], positional[1], "stroke image", &image, &strokes);
    } else {
        err = readImage(positional[0], cv::IMREAD_COLOR, &image);
    }
    if (!err.empty()) return fail(err);
    applyVectorStrokes(image.size(), vectors, &strokes);
    opt.progress = showProgress;
    opt.recover = !foreground.empty() || !cutout.empty();
    const qxmatte::KeepCutResult r = qxmatte::matteWithStrokes(image, strokes, opt);
    if (!r.ok) return fail(strokeSource + ": " + r.error);
    cv::Mat cut;
    if (!cutout.empty()) cut = qxmatte::makeCutout(r.foreground, r.alpha);
    err = writeAll({{output, r.alpha}, {foreground, r.foreground}, {cutout, cut}});
    return err.empty() ? 0 : fail(err);
}

int runForeground(int argc, char** argv) {
    std::vector<std::string> positional;
    std::string output, cutout;
    auto method = qxmatte::ForegroundMethod::LeastSquares;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) output = argv[++i];
        else if (a == "--method" && more) {
            const std::string m = argv[++i];
            if (m == "sampling") method = qxmatte::ForegroundMethod::Sampling;
            else if (m == "least-squares") method = qxmatte::ForegroundMethod::LeastSquares;
            else return fail("--method takes least-squares or sampling");
        }
        else if (a == "--cutout" && more) cutout = argv[++i];
        else if (a == "-q") continue;
        else if (!a.empty() && a[0] == '-') return fail("unknown or incomplete option " + a);
        else positional.push_back(a);
    }
    if (positional.size() != 2 || output.empty()) {
        usage(stderr);
        return 2;
    }
    std::string err = checkOutputs({output, cutout});
    if (!err.empty()) return fail(err);
    cv::Mat image, alpha;
    err = readImageAndPlane(positional[0], positional[1], "alpha", &image, &alpha);
    if (!err.empty()) return fail(err);
    const cv::Mat fg = qxmatte::recoverForeground(image, alpha, method);
    if (fg.empty()) return fail(positional[0] + ": the sampling method refused the image (a side "
                                "over 32767 pixels?)");
    cv::Mat cut;
    if (!cutout.empty()) cut = qxmatte::makeCutout(fg, alpha);
    err = writeAll({{output, fg}, {cutout, cut}});
    return err.empty() ? 0 : fail(err);
}

// grabcut and cutout: one parser, the workflows in grabcut.h.
int runGrabCutCommand(int argc, char** argv, bool showProgress, bool cutoutCommand) {
    std::vector<std::string> positional;
    std::string output, strokesPath, trimapPath, alphaPath, rectText;
    std::vector<qxmatte::VectorStroke> vectors;
    qxmatte::GrabCutOptions opt;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) output = argv[++i];
        else if ((a == "--keep" || a == "--cut") && more) {
            if (!addVectorStroke(a, argv[++i], &vectors)) return fail(a + kVectorStrokeUsage);
        }
        else if (a == "--rect" && more) rectText = argv[++i];
        else if (a == "--strokes" && more) strokesPath = argv[++i];
        else if (a == "--trimap" && more && !cutoutCommand) trimapPath = argv[++i];
        else if (a == "--alpha" && more && cutoutCommand) alphaPath = argv[++i];
        else if (a == "--band" && more) {
            if (!parseInt(argv[++i], 1, 32767, &opt.band)) return fail("--band takes 1 to 32767");
        } else if (a == "-q") showProgress = false;
        else if (!a.empty() && a[0] == '-') return fail("unknown or incomplete option " + a);
        else positional.push_back(a);
    }
    if (positional.size() != 1 || output.empty() || rectText.empty()) {
        usage(stderr);
        return 2;
    }
    if (!qxmatte::parseRect(rectText, &opt.rect))
        return fail("--rect takes X,Y,W,H with W and H at least 1");
    std::string err = checkOutputs({output, trimapPath, alphaPath});
    if (!err.empty()) return fail(err);
    cv::Mat image, strokes;
    err = strokesPath.empty()
              ? readImage(positional[0], cv::IMREAD_COLOR, &image)
              : readImageAndPlane(positional[0], strokesPath, "stroke image", &image, &strokes);
    if (!err.empty()) return fail(err);
    applyVectorStrokes(image.size(), vectors, &strokes);
    if ((opt.rect & cv::Rect(0, 0, image.cols, image.rows)) != opt.rect)
        return fail("--rect " + rectText + " is not inside the " + std::to_string(image.cols) +
                    "x" + std::to_string(image.rows) + " image");
    opt.progress = showProgress;
    if (cutoutCommand) {
        const qxmatte::CutoutResult c = qxmatte::cutoutFromRect(image, strokes, opt);
        if (!c.ok) return fail(positional[0] + ": " + c.error);
        err = writeAll({{output, c.cutout}, {alphaPath, c.alpha}});
    } else {
        if (!trimapPath.empty() && opt.band == 0) opt.band = qxmatte::defaultBandWidth(image.size());
        if (trimapPath.empty()) opt.band = 0;
        const qxmatte::GrabCutResult g = qxmatte::selectWithGrabCut(image, strokes, opt);
        if (!g.ok) return fail(positional[0] + ": " + g.error);
        err = writeAll({{output, g.selection}, {trimapPath, g.trimap}});
    }
    return err.empty() ? 0 : fail(err);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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
                return fail("--megapixels takes 0.01 to 100");
        } else if (a == "-q") {
            showProgress = false;
        } else {
            return fail("unknown or incomplete option " + a);
        }
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return fail(dir + ": cannot create the folder (" + ec.message() + ")");

    // 4:3, 1200 x 900 at the default size.
    const int width = std::max(40, static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 4 / 3))));
    const int height = width * 3 / 4;
    std::printf("demo: synthetic %dx%d scene with hair-like strands, known alpha and foreground\n",
                width, height);
    const qxmatte::DemoScene scene = qxmatte::makeDemoScene(width, height);

    // 1. Tri-map matting.
    qxmatte::MatteOptions opt;
    opt.progress = showProgress;
    qxmatte::resetPeakResident();
    auto start = std::chrono::steady_clock::now();
    const qxmatte::MatteResult r = qxmatte::matteWithTrimap(scene.image, scene.trimap, opt);
    double seconds = secondsSince(start);
    if (!r.ok) return fail("demo: " + r.error);
    const qxmatte::Accuracy acc = qxmatte::measureAccuracy(r.alpha, scene.truth, scene.trimap);
    std::printf("tri-map:  box %dx%d at (%d,%d), %d undecided pixels, solved in %.2f s, "
                "peak %.0f MB\n",
                r.boxWidth, r.boxHeight, r.boxLeft, r.boxTop, r.unknownPixels, seconds,
                qxmatte::peakResidentMB());
    std::printf("accuracy over the undecided pixels: SAD %.3f (thousands), MSE %.3f (x1000)\n",
                acc.sad, acc.mse);

    // 2. Keep-cut matting with foreground recovery, from strokes as an edge-band tool leaves them.
    const cv::Mat strokes = qxmatte::edgeBandStrokes(scene.truth);
    qxmatte::KeepCutOptions kopt;
    kopt.progress = showProgress;
    kopt.recover = true;
    qxmatte::resetPeakResident();
    start = std::chrono::steady_clock::now();
    const qxmatte::KeepCutResult k = qxmatte::matteWithStrokes(scene.image, strokes, kopt);
    seconds = secondsSince(start);
    if (!k.ok) return fail("demo: keep-cut: " + k.error);
    const double peak = qxmatte::peakResidentMB();
    const qxmatte::Accuracy kacc = qxmatte::measureAccuracy(k.alpha, scene.truth, strokes);
    const double fgError = qxmatte::foregroundError(k.foreground, scene.foreground, scene.truth);
    const double naiveError = qxmatte::foregroundError(scene.image, scene.foreground, scene.truth);
    std::printf("keep-cut: edge-band strokes, alpha and foreground in %.2f s, peak %.0f MB\n",
                seconds, peak);
    std::printf("keep-cut accuracy over the unpainted pixels: SAD %.3f (thousands), MSE %.3f "
                "(x1000)\n",
                kacc.sad, kacc.mse);
    start = std::chrono::steady_clock::now();
    const cv::Mat plainRecovery = qxmatte::recoverForeground(scene.image, k.alpha);
    seconds = secondsSince(start);
    const double plainError = qxmatte::foregroundError(plainRecovery, scene.foreground, scene.truth);
    std::printf("foreground error (thousands): %.3f as the keep-cut job recovers it (its window "
                "fades to the image's colours at the edges), %.3f by qxRecoverForeground on the "
                "same alpha in %.2f s, naive %.3f\n",
                fgError, plainError, seconds, naiveError);

    const cv::Mat composite =
        qxmatte::compositeOver(scene.foreground, r.alpha, qxmatte::makeNewBackground(width, height));
    const cv::Mat recomposite =
        qxmatte::compositeOver(k.foreground, k.alpha, qxmatte::makeNewBackground(width, height));
    const std::string err = writeAll({{dir + "/image.png", scene.image},
                                      {dir + "/trimap.png", scene.trimap},
                                      {dir + "/alpha.png", r.alpha},
                                      {dir + "/truth.png", scene.truth},
                                      {dir + "/composite.png", composite},
                                      {dir + "/strokes.png", strokes},
                                      {dir + "/keepcut_alpha.png", k.alpha},
                                      {dir + "/keepcut_foreground.png", k.foreground},
                                      {dir + "/keepcut_composite.png", recomposite}});
    if (!err.empty()) return fail(err);
    std::printf("wrote %s/{image,trimap,alpha,truth,composite,strokes,keepcut_alpha,"
                "keepcut_foreground,keepcut_composite}.png\n",
                dir.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    const std::string command = argv[1];
    const bool tty = isatty(STDERR_FILENO) != 0;
    if (command == "trimap") return runTrimap(argc - 2, argv + 2, tty);
    if (command == "keepcut") return runKeepCut(argc - 2, argv + 2, tty);
    if (command == "foreground") return runForeground(argc - 2, argv + 2);
    if (command == "demo") return runDemo(argc - 2, argv + 2, tty);
    if (command == "grabcut") return runGrabCutCommand(argc - 2, argv + 2, tty, false);
    if (command == "cutout") return runGrabCutCommand(argc - 2, argv + 2, tty, true);
    if (command == "-h" || command == "--help") {
        usage(stdout);
        return 0;
    }
    usage(stderr);
    return 2;
}
