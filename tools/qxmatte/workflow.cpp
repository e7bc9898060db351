#include "workflow.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <vector>

#include "progress_bar.h"
#include "qxiveilon31.h"

namespace qxmatte {

MatteResult matteWithTrimap(const cv::Mat& image, const cv::Mat& trimap, const MatteOptions& opt) {
    MatteResult r;
    const int width = image.cols, height = image.rows;
    int left = 0, boxWidth = 0, top = 0, boxHeight = 0, fgCount = 0, bgCount = 0;
    qxMaskBBox(0, trimap.data, static_cast<int>(trimap.step), width, height, &left, &boxWidth, &top,
               &boxHeight, &fgCount, &bgCount, 0, opt.fgCode, opt.bgCode);
    if (boxWidth <= 0 || boxHeight <= 0) {
        r.error = emptyBoxReason(trimap, opt.fgCode, opt.bgCode);
        r.badInput = true;
        return r;
    }
    r.boxLeft = left;
    r.boxTop = top;
    r.boxWidth = boxWidth;
    r.boxHeight = boxHeight;
    r.unknownPixels = boxWidth * boxHeight - fgCount - bgCount;

    // Cut to the box: three separate colour planes and a copy of the tri-map.
    const cv::Rect box(left, top, boxWidth, boxHeight);
    std::vector<cv::Mat> planes;
    cv::split(image(box), planes);
    cv::Mat mask = trimap(box).clone();
    unsigned char* planePtrs[3] = {planes[0].data, planes[1].data, planes[2].data};

    MaskRequest req{};
    req.planes = planePtrs;
    req.planeStep = static_cast<int32_t>(planes[0].step);
    req.mask = mask.data;
    req.maskStep = static_cast<int32_t>(mask.step);
    req.width = boxWidth;
    req.height = boxHeight;
    const bool bar =
        chooseProgress(opt.progress, &req.progProc, &req.progParam);
    r.status = qxMaskAlpha(&req, 0, static_cast<float>(r.unknownPixels), opt.fgCode, opt.bgCode,
                           opt.levelHigh, opt.levelLow);
    if (bar) clearProgress();
    if (r.status != 1) {
        r.error = "matting failed with status " + std::to_string(r.status);
        return r;
    }

    // Outside the box every pixel is definite.
    r.alpha = cv::Mat(height, width, CV_8UC1);
    for (int y = 0; y < height; ++y) {
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        unsigned char* a = r.alpha.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) a[x] = t[x] >= opt.fgCode ? 255 : t[x] <= opt.bgCode ? 0 : t[x];
    }
    mask.copyTo(r.alpha(box));
    r.ok = true;
    return r;
}

Accuracy measureAccuracy(const cv::Mat& alpha, const cv::Mat& truth, const cv::Mat& trimap,
                         int fgCode, int bgCode) {
    Accuracy acc;
    double sad = 0.0, sq = 0.0;
    for (int y = 0; y < alpha.rows; ++y) {
        const unsigned char* a = alpha.ptr<unsigned char>(y);
        const unsigned char* g = truth.ptr<unsigned char>(y);
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        for (int x = 0; x < alpha.cols; ++x) {
            if (t[x] <= bgCode || t[x] >= fgCode) continue;
            const double d = (a[x] - g[x]) / 255.0;
            sad += std::fabs(d);
            sq += d * d;
            ++acc.pixels;
        }
    }
    acc.sad = sad / 1000.0;
    acc.mse = acc.pixels ? sq / acc.pixels * 1000.0 : 0.0;
    return acc;
}

cv::Mat makeCutout(const cv::Mat& image, const cv::Mat& alpha) {
    std::vector<cv::Mat> channels;
    cv::split(image, channels);
    channels.push_back(alpha);
    cv::Mat out;
    cv::merge(channels, out);
    return out;
}

std::string emptyBoxReason(const cv::Mat& trimap, int fgCode, int bgCode) {
    // The box rule: rows from the first to the last with an undecided pixel, 12 more on each
    // side, clipped to the image; under 24 rows is no box.
    constexpr int kMargin = 12, kLeastRows = 24;
    int first = -1, last = -1;
    for (int y = 0; y < trimap.rows; ++y) {
        const unsigned char* t = trimap.ptr<unsigned char>(y);
        for (int x = 0; x < trimap.cols; ++x) {
            if (t[x] > bgCode && t[x] < fgCode) {
                if (first < 0) first = y;
                last = y;
                break;
            }
        }
    }
    if (first < 0) return "the tri-map has no undecided pixel";
    if (trimap.rows < kLeastRows)
        return "too few rows for the tri-map job: the image is " + std::to_string(trimap.rows) +
               " rows high, the job needs at least " + std::to_string(kLeastRows);
    const int top = std::max(0, first - kMargin);
    const int bottom = std::min(trimap.rows - 1, last + kMargin);
    const std::string rows = first == last ? "row " + std::to_string(first)
                                           : "rows " + std::to_string(first) + " to " +
                                                 std::to_string(last);
    return "too few undecided rows for the tri-map job: the undecided pixels lie on " + rows +
           ", " + std::to_string(bottom - top + 1) + " rows with 12 rows of margin, the job " +
           "needs at least " + std::to_string(kLeastRows) + " (widen the undecided band)";
}

namespace {

std::filesystem::path temporaryName(const std::filesystem::path& target) {
    return target.parent_path() /
           (".qxmatte-" + std::to_string(getpid()) + "-" + target.filename().string());
}

}  // namespace

std::string writeImagesAtomically(const std::vector<std::pair<std::string, cv::Mat>>& files) {
    namespace fs = std::filesystem;
    std::vector<std::pair<fs::path, fs::path>> written;  // temporary name, final name
    std::error_code ec;
    auto removeTemporaries = [&](size_t from) {
        for (size_t i = from; i < written.size(); ++i) fs::remove(written[i].first, ec);
    };
    for (const auto& [path, image] : files) {
        if (path.empty()) continue;
        const fs::path target(path);
        const fs::path temp = temporaryName(target);
        bool ok = false;
        try {
            ok = cv::imwrite(temp.string(), image);
        } catch (const cv::Exception&) {
            ok = false;
        }
        if (!ok) {
            fs::remove(temp, ec);
            removeTemporaries(0);
            return path + ": cannot write the image (unknown extension or unwritable folder)";
        }
        written.emplace_back(temp, target);
    }
    for (size_t i = 0; i < written.size(); ++i) {
        fs::rename(written[i].first, written[i].second, ec);
        if (ec) {
            const std::string reason = ec.message();
            removeTemporaries(i);
            // The ones already renamed go too: all or nothing.
            for (size_t k = 0; k < i; ++k) fs::remove(written[k].second, ec);
            return written[i].second.string() + ": cannot write the image (" + reason + ")";
        }
    }
    return {};
}

bool writeImageAtomically(const std::string& path, const cv::Mat& image, std::string* error) {
    *error = writeImagesAtomically({{path, image}});
    return error->empty();
}

}  // namespace qxmatte
