// The command line's own arguments: numbers, --keep/--cut strokes, -q and the positional names.
#include <climits>
#include <cstdlib>

#include "cli.h"

namespace qxmatte {

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
void applyVectorStrokes(const cv::Size& size, const std::vector<VectorStroke>& list,
                        cv::Mat* strokes) {
    if (list.empty()) return;
    if (strokes->empty()) *strokes = cv::Mat(size, CV_8UC1, cv::Scalar(128));
    for (const VectorStroke& s : list)
        qxwPaintStroke(strokes->data, static_cast<int>(strokes->step), strokes->cols,
                       strokes->rows, s.v[0], s.v[1], s.v[2], s.v[3], s.v[4],
                       s.keep ? QXW_KEEP : QXW_CUT);
}

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

}  // namespace qxmatte
