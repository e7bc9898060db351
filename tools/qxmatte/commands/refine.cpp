// qxmatte refine IMAGE MASK -o CUTOUT [--alpha A]: a coarse mask to a clean RGBA cut-out.
#include "../cli.h"

namespace qxmatte {

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

}  // namespace qxmatte
