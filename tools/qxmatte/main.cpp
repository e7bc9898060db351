// qxmatte: alpha mattes from the command line, through the library's C interface.
//
//   qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N] [--levels HIGH LOW]
//                  [--cutout OUT.png] [-q]
//   qxmatte demo [-o DIR] [-q]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "demo_scene.h"
#include "workflow.h"

namespace {

void usage(FILE* out) {
    std::fprintf(out,
                 "usage:\n"
                 "  qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N]\n"
                 "                 [--levels HIGH LOW] [--cutout OUT.png] [-q]\n"
                 "  qxmatte demo [-o DIR] [-q]\n"
                 "\n"
                 "trimap: alpha from a colour image and a tri-map (codes <= bg-code background,\n"
                 "        >= fg-code foreground, others undecided; defaults 0 and 255).\n"
                 "demo:   a synthetic scene with a known alpha, run through the same workflow;\n"
                 "        writes image, tri-map, alpha, truth and a new composite to DIR\n"
                 "        (default qxmatte-demo) and prints SAD and MSE against the truth.\n"
                 "-q:     no progress bar.\n");
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
    cv::Mat image, trimap;
    std::string err = readImage(positional[0], cv::IMREAD_COLOR, &image);
    if (!err.empty()) return fail(err);
    err = readImage(positional[1], cv::IMREAD_GRAYSCALE, &trimap);
    if (!err.empty()) return fail(err);
    if (image.size() != trimap.size())
        return fail(positional[1] + ": tri-map is " + std::to_string(trimap.cols) + "x" +
                    std::to_string(trimap.rows) + ", image is " + std::to_string(image.cols) + "x" +
                    std::to_string(image.rows));
    opt.progress = showProgress;
    const qxmatte::MatteResult r = qxmatte::matteWithTrimap(image, trimap, opt);
    if (!r.ok) return fail(positional[1] + ": " + r.error);
    if (!qxmatte::writeImageAtomically(output, r.alpha, &err)) return fail(err);
    if (!cutout.empty() &&
        !qxmatte::writeImageAtomically(cutout, qxmatte::makeCutout(image, r.alpha), &err))
        return fail(err);
    return 0;
}

int runDemo(int argc, char** argv, bool showProgress) {
    std::string dir = "qxmatte-demo";
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-o" && i + 1 < argc) dir = argv[++i];
        else if (a == "-q") showProgress = false;
        else return fail("unknown or incomplete option " + a);
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return fail(dir + ": cannot create the folder (" + ec.message() + ")");

    const int width = 1200, height = 900;
    std::printf("demo: synthetic %dx%d scene with hair-like strands and a known alpha\n", width,
                height);
    const qxmatte::DemoScene scene = qxmatte::makeDemoScene(width, height);
    qxmatte::MatteOptions opt;
    opt.progress = showProgress;
    const auto start = std::chrono::steady_clock::now();
    const qxmatte::MatteResult r = qxmatte::matteWithTrimap(scene.image, scene.trimap, opt);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!r.ok) return fail("demo: " + r.error);

    const qxmatte::Accuracy acc = qxmatte::measureAccuracy(r.alpha, scene.truth, scene.trimap);
    const cv::Mat composite =
        qxmatte::compositeOver(scene.foreground, r.alpha, qxmatte::makeNewBackground(width, height));
    std::string err;
    const std::pair<const char*, const cv::Mat*> files[] = {
        {"image.png", &scene.image}, {"trimap.png", &scene.trimap}, {"alpha.png", &r.alpha},
        {"truth.png", &scene.truth}, {"composite.png", &composite}};
    for (const auto& [name, mat] : files)
        if (!qxmatte::writeImageAtomically(dir + "/" + name, *mat, &err)) return fail(err);

    std::printf("box %dx%d at (%d,%d), %d undecided pixels, solved in %.2f s\n", r.boxWidth,
                r.boxHeight, r.boxLeft, r.boxTop, r.unknownPixels, seconds);
    std::printf("accuracy over the undecided pixels: SAD %.3f (thousands), MSE %.3f (x1000)\n",
                acc.sad, acc.mse);
    std::printf("wrote %s/{image,trimap,alpha,truth,composite}.png\n", dir.c_str());
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
    if (command == "demo") return runDemo(argc - 2, argv + 2, tty);
    if (command == "-h" || command == "--help") {
        usage(stdout);
        return 0;
    }
    usage(stderr);
    return 2;
}
