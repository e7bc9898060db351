// qxmatte: alpha mattes from the command line, through the library's C interface.
//
//   qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N] [--levels HIGH LOW]
//                  [--cutout OUT.png] [-q]
//   qxmatte keepcut IMAGE [STROKES] -o ALPHA.png [--keep X0,Y0,X1,Y1,R] [--cut ...]
//                   [--engine strokes|kdtree|pyramid] [--pyramid] [--foreground FG.png]
//                   [--cutout OUT.png] [-q]
//   qxmatte foreground IMAGE ALPHA -o FG.png [--method full|least-squares|sampling]
//                      [--cutout OUT.png]
//   qxmatte grabcut IMAGE --rect X,Y,W,H [--strokes S.png] [--keep/--cut X0,Y0,X1,Y1,R]...
//                   -o SELECTION.png [--band N] [--trimap T.png] [-q]
//   qxmatte cutout IMAGE --rect X,Y,W,H [--strokes S.png] [--keep/--cut ...]... [--band N]
//                  -o OUT.png [--alpha A.png] [-q]
//   qxmatte demo [-o DIR] [--megapixels N] [-q]
//   qxmatte --version | --help | COMMAND --help
//
// Every command checks its outputs (format, folder, permission) before any work, refuses a colour
// image where a grey plane is needed, and writes all its outputs under temporary names that are
// renamed only when all are written: a failure leaves no file behind. Exit codes: see kExitCodes.
// The work itself is the library's: every command is one or two calls of qxworkflow.h, the same
// calls the Python package and the GIMP plug-in make.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "cli.h"
#include "interrupt.h"
#include "measurement.h"
#include "qxiveilon31.h"
#include "qxworkflow.h"

namespace qxmatte {

const char* const kExitCodes =
    "exit codes:\n"
    "  0  done\n"
    "  1  an input can't be used: missing, not a regular file, unreadable or damaged,\n"
    "     too large, of the wrong size, a colour image where a grey plane is needed,\n"
    "     nothing to solve\n"
    "  2  the command line is wrong\n"
    "  3  an output can't be written: unknown format, no such folder, not writable,\n"
    "     the same file as an input (checked before any work)\n"
    "  4  the library's job failed (the message says why)\n"
    "  130, 143  stopped by SIGINT or SIGTERM (128 + the signal): nothing written\n";

struct Command {
    const char* name;
    const char* synopsis;
    const char* about;
};
const Command kCommands[] = {
    {"trimap",
     "qxmatte trimap IMAGE TRIMAP -o ALPHA.png [--fg-code N] [--bg-code N]\n"
     "                 [--levels HIGH LOW] [--cutout OUT.png] [-q]",
     "alpha from a colour image and a grey tri-map (codes <= bg-code\n"
     "background, >= fg-code foreground, others undecided; defaults 0\n"
     "and 255). The undecided pixels with 12 rows of margin must span at\n"
     "least 24 rows. --cutout writes the subject's recovered colours + alpha."},
    {"keepcut",
     "qxmatte keepcut IMAGE [STROKES] -o ALPHA.png [--keep X0,Y0,X1,Y1,R]...\n"
     "                  [--cut X0,Y0,X1,Y1,R]... [--engine strokes|kdtree|pyramid]\n"
     "                  [--foreground FG.png] [--cutout OUT.png] [-q]",
     "alpha from keep and cut strokes. STROKES is a grey image of the\n"
     "image's size: 255 keep (subject), 0 cut (background), any other\n"
     "value unpainted. --keep/--cut paint straight strokes of radius R\n"
     "(repeatable; STROKES may then be left out).\n"
     "--engine picks the solver: strokes (default), kdtree (the tiled\n"
     "engine) or pyramid (it at half size, doubled back; also --pyramid).\n"
     "--foreground writes the recovered colours, --cutout the RGBA\n"
     "cut-out with them."},
    {"foreground",
     "qxmatte foreground IMAGE ALPHA -o FG.png [--method full|least-squares|sampling]\n"
     "                     [--cutout OUT.png] [-q]",
     "the subject's true colours under a grey alpha from any source;\n"
     "--method full (default) solves at full resolution, least-squares\n"
     "at a quarter of the size, sampling picks nearby sample pairs."},
    {"grabcut",
     "qxmatte grabcut IMAGE --rect X,Y,W,H [--strokes S.png] [--keep ...] [--cut ...]\n"
     "                  -o SELECTION.png [--band N] [--trimap T.png] [-q]",
     "a hard selection of the subject inside the rectangle (strokes as\n"
     "in keepcut, image or vectors); --trimap writes a tri-map with an\n"
     "undecided band of N pixels (default 1% of the longer side, at\n"
     "least 10) on its edge."},
    {"cutout",
     "qxmatte cutout IMAGE --rect X,Y,W,H [--strokes S.png] [--keep ...] [--cut ...]\n"
     "                 [--band N] -o OUT.png [--alpha A.png] [-q]",
     "rectangle to RGBA cut-out: GrabCut, the edge band, alpha on the\n"
     "band, recovered colours; --alpha also writes the alpha."},
    {"refine",
     "qxmatte refine IMAGE MASK -o CUTOUT.png [--alpha A.png] [-q]",
     "a coarse mask or soft alpha of any source (a segmentation model, a\n"
     "rough brush, another editor's selection) to a clean RGBA cut-out:\n"
     "the undecided band comes from the mask and the image; --alpha also\n"
     "writes the alpha."},
    {"batch",
     "qxmatte batch IN -o OUT [-j N] [--only NAME] [-q]",
     "every photo NAME.png/.jpg/.tif/.webp in IN with a partner\n"
     "NAME.mask.png (refine), NAME.trimap.png (trimap --cutout) or\n"
     "NAME.strokes.png (keepcut --cutout) to OUT/NAME.png, as those\n"
     "commands make it. OUT must be an existing folder other than IN.\n"
     "Outputs newer than their inputs are kept; a failing photo doesn't\n"
     "stop the rest (listed at the end with the photos skipped, exit 1);\n"
     "-j N photos at once; --only NAME does the photo NAME alone (as a\n"
     "cluster's task does)."},
    {"demo", "qxmatte demo [-o DIR] [--megapixels N] [-q]",
     "a synthetic scene with a known alpha and foreground, through the\n"
     "tri-map and the keep-cut workflows; writes the images to DIR\n"
     "(default qxmatte-demo) and prints accuracy, time and memory.\n"
     "--megapixels scales the scene (default about 1)."},
};
const char* const kCommonOptions =
    "-q: no progress bar. Outputs with alpha (--cutout, cutout -o) need a\n"
    "format that keeps it: PNG, TIFF or WebP. No output may be an input.\n"
    "Images read: PNG, JPEG, TIFF, WebP (8 or 16 bits, or floating-point\n"
    "0..1); a damaged file is refused. --max-megapixels N (any command)\n"
    "raises the limit on an image's size, checked before decoding\n"
    "(default 400).\n";

const Command* findCommand(const std::string& name) {
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

// Prints text with every line after the first indented by `indent` spaces.
void printIndented(FILE* out, const char* text, int indent) {
    for (const char* p = text; *p; ++p) {
        std::fputc(*p, out);
        if (*p == '\n') std::fprintf(out, "%*s", indent, "");
    }
    std::fputc('\n', out);
}

void usage(FILE* out) {
    std::fprintf(out, "usage:\n");
    for (const Command& c : kCommands) std::fprintf(out, "  %s\n", c.synopsis);
    std::fprintf(out, "  qxmatte --version\n  qxmatte COMMAND --help\n\n");
    for (const Command& c : kCommands) {
        std::fprintf(out, "%-12s", (std::string(c.name) + ":").c_str());
        printIndented(out, c.about, 12);
    }
    std::fprintf(out, "\n%s\n%s", kCommonOptions, kExitCodes);
}

void commandHelp(const Command& c) {
    std::printf("usage: %s\n\n", c.synopsis);
    printIndented(stdout, c.about, 0);
    std::printf("\n%s\n%s", kCommonOptions, kExitCodes);
}

// A command line that names too little: one line, and where to look.
int usageError(const char* command, const std::string& what) {
    return fail(kExitUsage, std::string(command) + ": " + what + " (qxmatte " + command +
                                " --help)");
}

bool parseInt(const char* text, int lo, int hi, int* out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!text[0] || *end || v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

// --keep/--cut X0,Y0,X1,Y1,R (R >= 0): false when the text is off.
struct VectorStroke {
    int v[5];
    bool keep;
};
bool addVectorStroke(const std::string& option, const std::string& text,
                     std::vector<VectorStroke>* list) {
    VectorStroke s{{}, option == "--keep"};
    const char* p = text.c_str();
    for (int i = 0; i < 5; ++i) {
        char* end = nullptr;
        const long v = std::strtol(p, &end, 10);
        if (end == p || v < INT_MIN || v > INT_MAX || *end != (i < 4 ? ',' : '\0')) return false;
        s.v[i] = static_cast<int>(v);
        p = end + 1;
    }
    if (s.v[4] < 0) return false;
    list->push_back(s);
    return true;
}
const char* const kVectorStrokeUsage = " takes X0,Y0,X1,Y1,R (integers, R at least 0)";

// Paints vector strokes into the stroke image, making an unpainted one first when there is none.
void applyVectorStrokes(const cv::Size& size, const std::vector<VectorStroke>& list,
                        cv::Mat* strokes) {
    if (list.empty()) return;
    if (strokes->empty()) *strokes = cv::Mat(size, CV_8UC1, cv::Scalar(128));
    for (const VectorStroke& s : list)
        qxwPaintStroke(strokes->data, static_cast<int>(strokes->step), strokes->cols,
                       strokes->rows, s.v[0], s.v[1], s.v[2], s.v[3], s.v[4],
                       s.keep ? QXW_KEEP : QXW_CUT);
}

// The arguments every command takes alike: -q, the positional names, and a refusal of any other
// option. kExitOk when taken, otherwise the exit status.
int otherArgument(const std::string& a, bool* showProgress, std::vector<std::string>* positional) {
    if (a == "-q") {
        *showProgress = false;
    } else if (!a.empty() && a[0] == '-') {
        return fail(kExitUsage, "unknown or incomplete option " + a);
    } else {
        positional->push_back(a);
    }
    return kExitOk;
}

// A workflow call's record, with the progress bar on standard error when asked for.

// The exit status of a failed workflow: the input's fault, or the library's.
int jobFailure(const std::string& source, QxwStatus status, const QxwJob& job) {
    if (status == QXW_CANCELLED) return fail(128 + interruptedBy(), "interrupted, nothing written");
    return fail(status == QXW_BAD_INPUT ? kExitInput : kExitJob, source + ": " + job.message);
}

QxwImage imageOf(const cv::Mat& bgr) {
    return {bgr.data, static_cast<int32_t>(bgr.step), 3, bgr.cols, bgr.rows, QXW_BGR};
}

// The subject's colours under an alpha (the full-resolution recovery unless said otherwise);
// the workflow's status, with the colours in *out.
// The share of a command's bar for the alpha when the colours are recovered after it.
constexpr double kSolveShare = 0.75;

QxwStatus recover(const cv::Mat& image, const cv::Mat& alpha, Job& job, cv::Mat* out,
                  QxwForegroundMethod method = QXW_FG_FULL) {
    const QxwImage img = imageOf(image);
    cv::Mat fg(image.size(), CV_8UC3);
    const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
    const QxwStatus s = qxwRecoverForeground(&img, alpha.data, static_cast<int>(alpha.step),
                                             method, &colours, job);
    if (s == QXW_OK) *out = fg;
    return s;
}

int cutoutOf(Partner kind, const std::string& imagePath, const std::string& partnerPath, Job& job,
             cv::Mat* rgba, cv::Mat* alphaOut) {
    const char* what = kind == Partner::Mask ? "mask"
                       : kind == Partner::Trimap ? "tri-map"
                                                 : "stroke image";
    cv::Mat image, plane;
    const std::string err = readImageAndPlane(imagePath, partnerPath, what, &image, &plane);
    if (!err.empty()) return fail(kExitInput, err);
    const QxwImage img = imageOf(image);
    cv::Mat alpha(image.size(), CV_8UC1), fg;
    QxwStatus s;
    if (kind == Partner::Mask) {
        fg.create(image.size(), CV_8UC3);
        const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
        s = qxwRefineMask(&img, plane.data, static_cast<int>(plane.step), alpha.data,
                          static_cast<int>(alpha.step), &colours, job);
        if (s != QXW_OK) return jobFailure(partnerPath, s, job.job);
    } else {
        job.stage(0.0, kSolveShare);
        s = kind == Partner::Trimap
                ? qxwMatteTrimap(&img, plane.data, static_cast<int>(plane.step), 255, 0, 255, 0,
                                 alpha.data, static_cast<int>(alpha.step), job)
                : qxwMatteStrokes(&img, plane.data, static_cast<int>(plane.step),
                                  QXW_ENGINE_STROKES, alpha.data, static_cast<int>(alpha.step),
                                  job);
        if (s != QXW_OK) return jobFailure(partnerPath, s, job.job);
        job.stage(kSolveShare, 1.0);
        if ((s = recover(image, alpha, job, &fg)) != QXW_OK)
            return jobFailure(imagePath, s, job.job);
    }
    *rgba = withAlpha(fg, alpha);
    if (alphaOut) *alphaOut = alpha;
    return kExitOk;
}

int runRefine(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string output, alphaPath;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) output = argv[++i];
        else if (a == "--alpha" && more) alphaPath = argv[++i];
        else if (const int rc = otherArgument(a, &showProgress, &positional)) return rc;
    }
    if (positional.size() != 2 || output.empty())
        return usageError("refine", "needs IMAGE, MASK and -o CUTOUT");
    const std::string err = checkOutputs({{output, true}, {alphaPath}}, positional);
    if (!err.empty()) return fail(kExitOutput, err);
    Job job(showProgress);
    cv::Mat rgba, alpha;
    if (const int rc = cutoutOf(Partner::Mask, positional[0], positional[1], job, &rgba, &alpha))
        return rc;
    return writeAll({{output, rgba}, {alphaPath, alpha}});
}

int runTrimap(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string output, cutout;
    int fgCode = 255, bgCode = 0, levelHigh = 255, levelLow = 0;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        auto need = [&](int n) { return i + n < argc; };
        if (a == "-o" && need(1)) {
            output = argv[++i];
        } else if (a == "--cutout" && need(1)) {
            cutout = argv[++i];
        } else if (a == "--fg-code" && need(1)) {
            if (!parseInt(argv[++i], 1, 255, &fgCode))
                return fail(kExitUsage, "--fg-code takes 1 to 255");
        } else if (a == "--bg-code" && need(1)) {
            if (!parseInt(argv[++i], 0, 254, &bgCode))
                return fail(kExitUsage, "--bg-code takes 0 to 254");
        } else if (a == "--levels" && need(2)) {
            if (!parseInt(argv[i + 1], 0, 255, &levelHigh) ||
                !parseInt(argv[i + 2], 0, 255, &levelLow))
                return fail(kExitUsage, "--levels takes HIGH LOW, each 0 to 255");
            i += 2;
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    if (positional.size() != 2 || output.empty())
        return usageError("trimap", "needs IMAGE, TRIMAP and -o ALPHA");
    if (bgCode >= fgCode) return fail(kExitUsage, "--bg-code must be below --fg-code");
    std::string err = checkOutputs({{output}, {cutout, true}}, positional);
    if (!err.empty()) return fail(kExitOutput, err);
    cv::Mat image, trimap;
    err = readImageAndPlane(positional[0], positional[1], "tri-map", &image, &trimap);
    if (!err.empty()) return fail(kExitInput, err);
    Job job(showProgress);
    const QxwImage img = imageOf(image);
    cv::Mat alpha(image.size(), CV_8UC1), fg;
    if (!cutout.empty()) job.stage(0.0, kSolveShare);
    QxwStatus s = qxwMatteTrimap(&img, trimap.data, static_cast<int>(trimap.step), fgCode,
                                 bgCode, levelHigh, levelLow, alpha.data,
                                 static_cast<int>(alpha.step), job);
    if (s != QXW_OK) return jobFailure(positional[1], s, job.job);
    job.stage(kSolveShare, 1.0);
    if (!cutout.empty() && (s = recover(image, alpha, job, &fg)) != QXW_OK)
        return jobFailure(positional[0], s, job.job);
    return writeAll({{output, alpha}, {cutout, cutout.empty() ? cv::Mat() : qxmatte::withAlpha(fg, alpha)}});
}

int runKeepCut(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::vector<VectorStroke> vectors;
    std::string output, foreground, cutout;
    QxwStrokeEngine engine = QXW_ENGINE_STROKES;
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
            if (!addVectorStroke(a, argv[++i], &vectors))
                return fail(kExitUsage, a + kVectorStrokeUsage);
        } else if (a == "--engine" && more) {
            const std::string e = argv[++i];
            if (e == "strokes") engine = QXW_ENGINE_STROKES;
            else if (e == "kdtree") engine = QXW_ENGINE_KDTREE;
            else if (e == "pyramid") engine = QXW_ENGINE_PYRAMID;
            else return fail(kExitUsage, "--engine takes strokes, kdtree or pyramid");
        } else if (a == "--pyramid") {
            engine = QXW_ENGINE_PYRAMID;
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    // The stroke image may be left out when the strokes come as vectors.
    if (positional.empty() || positional.size() > 2 || output.empty() ||
        (positional.size() == 1 && vectors.empty()))
        return usageError("keepcut", "needs IMAGE, STROKES or --keep/--cut, and -o ALPHA");
    std::string err = checkOutputs({{output}, {foreground}, {cutout, true}}, positional);
    if (!err.empty()) return fail(kExitOutput, err);
    cv::Mat image, strokes;
    const std::string& strokeSource = positional.size() == 2 ? positional[1] : positional[0];
    if (positional.size() == 2) {
        err = readImageAndPlane(positional[0], positional[1], "stroke image", &image, &strokes);
    } else {
        err = readImage(positional[0], &image);
    }
    if (!err.empty()) return fail(kExitInput, err);
    applyVectorStrokes(image.size(), vectors, &strokes);
    Job job(showProgress);
    const QxwImage img = imageOf(image);
    cv::Mat alpha(image.size(), CV_8UC1), fg;
    const bool colours = !foreground.empty() || !cutout.empty();
    if (colours) job.stage(0.0, kSolveShare);
    QxwStatus s = qxwMatteStrokes(&img, strokes.data, static_cast<int>(strokes.step), engine,
                                  alpha.data, static_cast<int>(alpha.step), job);
    if (s != QXW_OK) return jobFailure(strokeSource, s, job.job);
    job.stage(kSolveShare, 1.0);
    if (colours && (s = recover(image, alpha, job, &fg)) != QXW_OK)
        return jobFailure(positional[0], s, job.job);
    return writeAll({{output, alpha}, {foreground, fg},
                     {cutout, cutout.empty() ? cv::Mat() : qxmatte::withAlpha(fg, alpha)}});
}

int runForeground(int argc, char** argv, bool showProgress) {
    std::vector<std::string> positional;
    std::string output, cutout;
    QxwForegroundMethod method = QXW_FG_FULL;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) {
            output = argv[++i];
        } else if (a == "--method" && more) {
            const std::string m = argv[++i];
            if (m == "sampling") method = QXW_FG_SAMPLING;
            else if (m == "least-squares") method = QXW_FG_LEAST_SQUARES;
            else if (m == "full") method = QXW_FG_FULL;
            else return fail(kExitUsage, "--method takes full, least-squares or sampling");
        } else if (a == "--cutout" && more) {
            cutout = argv[++i];
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    if (positional.size() != 2 || output.empty())
        return usageError("foreground", "needs IMAGE, ALPHA and -o FG");
    std::string err = checkOutputs({{output}, {cutout, true}}, positional);
    if (!err.empty()) return fail(kExitOutput, err);
    cv::Mat image, alpha, fg;
    err = readImageAndPlane(positional[0], positional[1], "alpha", &image, &alpha);
    if (!err.empty()) return fail(kExitInput, err);
    Job job(showProgress);
    const QxwStatus s = recover(image, alpha, job, &fg, method);
    if (s != QXW_OK) return jobFailure(positional[0], s, job.job);
    return writeAll({{output, fg}, {cutout, cutout.empty() ? cv::Mat() : qxmatte::withAlpha(fg, alpha)}});
}

// grabcut and cutout: one parser, two workflows.
int runGrabCutCommand(int argc, char** argv, bool showProgress, bool cutoutCommand) {
    const char* const command = cutoutCommand ? "cutout" : "grabcut";
    std::vector<std::string> positional;
    std::string output, strokesPath, trimapPath, alphaPath, rectText;
    std::vector<VectorStroke> vectors;
    int band = 0;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "-o" && more) {
            output = argv[++i];
        } else if ((a == "--keep" || a == "--cut") && more) {
            if (!addVectorStroke(a, argv[++i], &vectors))
                return fail(kExitUsage, a + kVectorStrokeUsage);
        } else if (a == "--rect" && more) {
            rectText = argv[++i];
        } else if (a == "--strokes" && more) {
            strokesPath = argv[++i];
        } else if (a == "--trimap" && more && !cutoutCommand) {
            trimapPath = argv[++i];
        } else if (a == "--alpha" && more && cutoutCommand) {
            alphaPath = argv[++i];
        } else if (a == "--band" && more) {
            if (!parseInt(argv[++i], 1, 32767, &band))
                return fail(kExitUsage, "--band takes 1 to 32767");
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    if (positional.size() != 1 || output.empty() || rectText.empty())
        return usageError(command, "needs IMAGE, --rect X,Y,W,H and -o OUTPUT");
    int r[4];
    char tail = 0;
    if (std::sscanf(rectText.c_str(), "%d,%d,%d,%d%c", &r[0], &r[1], &r[2], &r[3], &tail) != 4 ||
        r[2] < 1 || r[3] < 1)
        return fail(kExitUsage, "--rect takes X,Y,W,H with W and H at least 1");
    std::string err = checkOutputs({{output, cutoutCommand}, {trimapPath}, {alphaPath}},
                                   {positional[0], strokesPath});
    if (!err.empty()) return fail(kExitOutput, err);
    cv::Mat image, strokes;
    err = strokesPath.empty()
              ? readImage(positional[0], &image)
              : readImageAndPlane(positional[0], strokesPath, "stroke image", &image, &strokes);
    if (!err.empty()) return fail(kExitInput, err);
    applyVectorStrokes(image.size(), vectors, &strokes);
    const cv::Rect rect(r[0], r[1], r[2], r[3]);
    if ((rect & cv::Rect(0, 0, image.cols, image.rows)) != rect)
        return fail(kExitUsage, "--rect " + rectText + " is not inside the " +
                                    std::to_string(image.cols) + "x" +
                                    std::to_string(image.rows) + " image");
    Job job(showProgress);
    const QxwImage img = imageOf(image);
    const int strokeStride = static_cast<int>(strokes.step);
    cv::Mat first(image.size(), CV_8UC1), second(image.size(), CV_8UC1);  // alpha or selection
    if (cutoutCommand) {
        cv::Mat fg(image.size(), CV_8UC3);
        const QxwColourOut colours{fg.data, static_cast<int32_t>(fg.step)};
        const QxwStatus s = qxwCutoutFromRect(&img, strokes.data, strokeStride, r[0], r[1], r[2],
                                              r[3], band, first.data,
                                              static_cast<int>(first.step), &colours, job);
        if (s != QXW_OK) return jobFailure(positional[0], s, job.job);
        return writeAll({{output, qxmatte::withAlpha(fg, first)}, {alphaPath, first}});
    }
    const QxwStatus s = qxwSelectSubject(
        &img, strokes.data, strokeStride, r[0], r[1], r[2], r[3], band, first.data,
        static_cast<int>(first.step), trimapPath.empty() ? nullptr : second.data,
        static_cast<int>(second.step), job);
    if (s != QXW_OK) return jobFailure(positional[0], s, job.job);
    return writeAll({{output, first}, {trimapPath, second}});
}

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

int runCommand(const std::string& command, int argc, char** argv, bool tty) {
    if (command == "trimap") return runTrimap(argc, argv, tty);
    if (command == "refine") return runRefine(argc, argv, tty);
    if (command == "batch") return runBatch(argc, argv, tty);
    if (command == "keepcut") return runKeepCut(argc, argv, tty);
    if (command == "foreground") return runForeground(argc, argv, tty);
    if (command == "grabcut") return runGrabCutCommand(argc, argv, tty, false);
    if (command == "cutout") return runGrabCutCommand(argc, argv, tty, true);
    return runDemo(argc, argv, tty);
}

}  // namespace qxmatte

int main(int argc, char** argv) {
    using namespace qxmatte;
    if (argc < 2) {
        usage(stderr);
        return kExitUsage;
    }
    const std::string command = argv[1];
    if (command == "-h" || command == "--help") {
        usage(stdout);
        return kExitOk;
    }
    if (command == "--version") {
        int major = 0, minor = 0, patch = 0;
        qxVersion(&major, &minor, &patch);
        std::printf("qxmatte %d.%d.%d, qxiveilon31 library %d.%d.%d\n", QXIVEILON31_VERSION_MAJOR,
                    QXIVEILON31_VERSION_MINOR, QXIVEILON31_VERSION_PATCH, major, minor, patch);
        return kExitOk;
    }
    const Command* known = findCommand(command);
    if (!known) return fail(kExitUsage, "unknown command " + command + " (qxmatte --help)");
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            commandHelp(*known);
            return kExitOk;
        }
    }
    // --max-megapixels applies to every command's reading: taken out before the command's own
    // arguments are parsed.
    std::vector<char*> args;
    double limit = kDefaultMegapixels;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--max-megapixels") == 0) {
            char* end = nullptr;
            limit = i + 1 < argc ? std::strtod(argv[i + 1], &end) : 0.0;
            if (!end || *end || !(limit >= 1.0 && limit <= 1e6))
                return fail(kExitUsage, "--max-megapixels takes 1 to 1000000");
            ++i;
        } else {
            args.push_back(argv[i]);
        }
    }
    setPixelLimit(limit);
    // OpenCV's decoders write their own multi-line complaints to std::cerr; this tool says what
    // went wrong in one line of its own.
    std::cerr.setstate(std::ios::badbit);
    const bool tty = isatty(STDERR_FILENO) != 0;
    qxmatte::installInterrupt();
    return qxmatte::exitNow(
        runCommand(command, static_cast<int>(args.size()), args.data(), tty));
}
