// qxmatte foreground IMAGE ALPHA -o FG: the subject's true colours under an alpha.
#include "../cli.h"
#include "../measurement.h"

namespace qxmatte {

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

}  // namespace qxmatte
