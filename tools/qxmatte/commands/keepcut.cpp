// qxmatte keepcut IMAGE [STROKES] -o ALPHA: alpha (and colours, a cut-out) from keep and cut
// strokes, painted or given as vectors.
#include "../cli.h"
#include "../measurement.h"

namespace qxmatte {

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

}  // namespace qxmatte
