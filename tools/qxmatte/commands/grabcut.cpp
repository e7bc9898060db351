// qxmatte grabcut / cutout IMAGE --rect X,Y,W,H: a hard selection and its tri-map, or the whole
// cut-out, from a rectangle and optional strokes. cutout without --rect (or with --subject)
// starts from the subject's mask of the segmentation network instead of GrabCut.
#include <cstdio>

#include "../cli.h"
#include "../measurement.h"

namespace qxmatte {

// grabcut and cutout: one parser, two workflows.
int runGrabCutCommand(int argc, char** argv, bool showProgress, bool cutoutCommand) {
    const char* const command = cutoutCommand ? "cutout" : "grabcut";
    std::vector<std::string> positional;
    std::string output, strokesPath, trimapPath, alphaPath, rectText, modelPath;
    std::vector<VectorStroke> vectors;
    int band = 0;
    bool subject = false;
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
        } else if (a == "--subject" && cutoutCommand) {
            subject = true;
        } else if (a == "--model" && more && cutoutCommand) {
            modelPath = argv[++i];
            subject = true;
        } else if (a == "--band" && more) {
            if (!parseInt(argv[++i], 1, 32767, &band))
                return fail(kExitUsage, "--band takes 1 to 32767");
        } else if (const int rc = otherArgument(a, &showProgress, &positional)) {
            return rc;
        }
    }
    if (cutoutCommand && rectText.empty()) subject = true;
    if (positional.size() != 1 || output.empty() || (rectText.empty() && !subject))
        return usageError(command, "needs IMAGE, --rect X,Y,W,H and -o OUTPUT");
    if (subject && band != 0)
        return fail(kExitUsage, "--band goes with GrabCut's cut-out, not --subject");
    int r[4] = {0, 0, 0, 0};
    char tail = 0;
    if (!rectText.empty() &&
        (std::sscanf(rectText.c_str(), "%d,%d,%d,%d%c", &r[0], &r[1], &r[2], &r[3], &tail) != 4 ||
         r[2] < 1 || r[3] < 1))
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
    if (!rectText.empty() && (rect & cv::Rect(0, 0, image.cols, image.rows)) != rect)
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
        const QxwSubjectOptions options{modelPath.empty() ? nullptr : modelPath.c_str()};
        const QxwStatus s =
            subject ? qxwCutoutSubject(&img, &options, strokes.data, strokeStride, r[0], r[1],
                                       r[2], r[3], first.data, static_cast<int>(first.step),
                                       &colours, job)
                    : qxwCutoutFromRect(&img, strokes.data, strokeStride, r[0], r[1], r[2], r[3],
                                        band, first.data, static_cast<int>(first.step), &colours,
                                        job);
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

}  // namespace qxmatte
