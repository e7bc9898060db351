// qxmatte trimap IMAGE TRIMAP -o ALPHA [--cutout OUT]: alpha (and a cut-out) from a tri-map.
#include "../cli.h"
#include "../measurement.h"

namespace qxmatte {

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

}  // namespace qxmatte
