#include "grabcut/comp_alpha_map.h"

#include <opencv2/imgproc.hpp>

namespace qx {
namespace {

// cv::grabCut's Gaussian mixtures have 5 components; a new model is seeded by k-means, which
// needs at least one sample a component.
constexpr int64_t kComponents = 5;

}  // namespace

uint8_t grabCutLabel(bool fixed, uint8_t code, uint8_t stored) {
    if (code < 10) return static_cast<uint8_t>(fixed ? cv::GC_BGD : cv::GC_PR_BGD);
    if (code > 245) return static_cast<uint8_t>(fixed ? cv::GC_FGD : cv::GC_PR_FGD);
    return stored;
}

int CompAlphaMapGrabCut(const unsigned char* image, int imageStep, int width, int height,
                        unsigned char* mask, int maskStep, const unsigned char* flags,
                        int flagStep, GrabCutControl* control) {
    const size_t step =
        imageStep != 0 ? static_cast<size_t>(imageStep) : static_cast<size_t>(cv::Mat::AUTO_STEP);
    const cv::Mat img(height, width, CV_8UC3, const_cast<unsigned char*>(image), step);
    cv::Mat& labels = *control->mask;
    const cv::Rect inner(5, 5, width - 10, height - 10);

    if (control->maskReady == 0) {
        labels.setTo(cv::Scalar(cv::GC_BGD));
        if (inner.width > 0 && inner.height > 0) labels(inner).setTo(cv::Scalar(cv::GC_PR_FGD));
        control->maskReady = 1;
    }

    int64_t foreground = 0;
    for (int y = 0; y < height; ++y) {
        const unsigned char* f = flags + static_cast<int64_t>(y) * flagStep;
        const unsigned char* m = mask + static_cast<int64_t>(y) * maskStep;
        unsigned char* l = labels.ptr<unsigned char>(y);
        for (int x = 0; x < width; ++x) {
            l[x] = grabCutLabel(f[x] != 0, m[x], l[x]);
            foreground += l[x] & 1;
        }
    }
    const int64_t background = static_cast<int64_t>(width) * height - foreground;

    // Models are learned anew when the constraints changed, and also while they are still
    // empty: the first cut of a session without strokes sees an unchanged fingerprint (no flag
    // then, none before), and refining empty models would leave one Gaussian a side. When
    // either side is too small to seed five components, empty models are refined as before.
    const bool changed = isConstsChanged(flags, flagStep, control);
    const bool untrained = control->bgdModel->empty() || control->fgdModel->empty();
    const bool learn = changed || (untrained && foreground >= kComponents &&
                                   background >= kComponents);
    const int64_t needed = learn ? kComponents : 1;
    if (foreground >= needed && background >= needed) {
        cv::RNG& rng = cv::theRNG();
        const uint64_t callersState = rng.state;
        rng.state = kGrabCutSeed;
        try {
            cv::grabCut(img, labels, inner, *control->bgdModel, *control->fgdModel, 3,
                        learn ? cv::GC_INIT_WITH_MASK : cv::GC_EVAL);
        } catch (...) {
            rng.state = callersState;
            throw;
        }
        rng.state = callersState;
    }

    for (int y = 0; y < height; ++y) {
        const unsigned char* l = labels.ptr<unsigned char>(y);
        unsigned char* m = mask + static_cast<int64_t>(y) * maskStep;
        for (int x = 0; x < width; ++x) m[x] = (l[x] & 1) ? 255 : 0;
    }
    return 0;
}

}  // namespace qx
