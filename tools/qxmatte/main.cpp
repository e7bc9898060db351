// qxmatte: alpha mattes from the command line, through the library's C interface.
//
//   qxmatte trimap | keepcut | foreground | grabcut | cutout | refine | batch | demo ...
//   qxmatte --version | --help | COMMAND --help
//
// This file holds the commands' table (their usage and help texts, the exit codes) and the entry;
// each command is a file of commands/, what they share is behind cli.h: arguments
// (arguments.cpp), reading, checking and writing files (image_io.cpp), the steps around a
// workflow call (jobs.cpp), messages (failure.cpp) and signals (interrupt.cpp).
//
// Every command checks its outputs (format, folder, permission, not an input) before any work,
// reads its inputs right or refuses them, and writes all its outputs under temporary names that
// are renamed only when all are written: a failure leaves no file behind. Exit codes: see
// kExitCodes. The work itself is the library's: every command is one or two calls of
// qxworkflow.h, the same calls the Python package and the GIMP plug-in make.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "qxiveilon31.h"

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
     "qxmatte cutout IMAGE [--rect X,Y,W,H] [--strokes S.png] [--keep ...] [--cut ...]\n"
     "                 [--band N] [--subject] [--model M.onnx] -o OUT.png [--alpha A.png] [-q]",
     "rectangle to RGBA cut-out: GrabCut, the edge band, alpha on the\n"
     "band, recovered colours; --alpha also writes the alpha. Without\n"
     "--rect (or with --subject), one click: the subject's mask from the\n"
     "segmentation network that scripts/setup.sh installs (--model, or\n"
     "QX_SUBJECT_MODEL, names another file), solved on a band reaching\n"
     "far inside its edge; outside --rect is background, strokes override."},
    {"refine",
     "qxmatte refine IMAGE MASK -o CUTOUT.png [--alpha A.png] [-q]",
     "a coarse mask or soft alpha of any source (a segmentation model, a\n"
     "rough brush, another editor's selection) to a clean RGBA cut-out:\n"
     "the undecided band comes from the mask and the image; --alpha also\n"
     "writes the alpha."},
    {"batch",
     "qxmatte batch IN -o OUT [-j N] [--only NAME] [--subject] [-q]",
     "every photo NAME.png/.jpg/.tif/.webp in IN with a partner\n"
     "NAME.mask.png (refine), NAME.trimap.png (trimap --cutout) or\n"
     "NAME.strokes.png (keepcut --cutout) to OUT/NAME.png, as those\n"
     "commands make it; with --subject, a photo without a partner as\n"
     "cutout without --rect makes it (the one-click cut-out). OUT must be an existing folder other than IN.\n"
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

