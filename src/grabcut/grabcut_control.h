// The state of one interactive GrabCut session: the colour models that cv::grabCut keeps from
// one cut to the next, and the label of every pixel of the working level. The host holds a
// pointer to it in its GrabCutRequest; it is made by the first qxGrabCut and ended by
// qxGrabCutDeleteBuf. Calls on one control must not overlap; it holds no lock of its own.
#pragma once

#include <opencv2/core.hpp>

namespace qx {

class GrabCutControl {
public:
    // Allocates the two models (empty) and the label plane (height x width, 8-bit; empty when
    // a size is not above 0). A failed allocation leaves that pointer null.
    GrabCutControl(int width, int height);
    // Destroys fgdModel, bgdModel, mask, in that order.
    ~GrabCutControl();
    GrabCutControl(const GrabCutControl&) = delete;
    GrabCutControl& operator=(const GrabCutControl&) = delete;

    int width;           // of the working level when the control was made
    int height;
    double constsSum;    // sum of the flag bytes at the last cut: the constraints' fingerprint
    cv::Mat* bgdModel;   // background colour model, kept between cuts
    cv::Mat* fgdModel;   // foreground colour model
    cv::Mat* mask;       // labels in cv::grabCut's codes (0 BGD, 1 FGD, 2 PR_BGD, 3 PR_FGD)
    short maskReady;     // 0 until the first cut has set the start labels
};

// What a cut may change in a control, copied so that a cancelled cut can put it back.
class ControlSnapshot {
public:
    explicit ControlSnapshot(const GrabCutControl& c);
    void restore(GrabCutControl& c) const;

private:
    double constsSum_;
    cv::Mat bgdModel_, fgdModel_, mask_;
    short maskReady_;
};

// A new registered control, or null when an allocation failed (nothing is leaked then).
GrabCutControl* grabcutCreateBuf(int width, int height);

// Destroys a control made by grabcutCreateBuf. Returns false, doing nothing, for a pointer that
// is not a live control of this library (null, foreign, or already deleted).
bool GrabCutDeleteBuf(GrabCutControl* control);

// Whether `p` is a live control made by grabcutCreateBuf. A host's pointer is only ever
// compared, never read, before this says yes.
bool isLiveGrabCutControl(const void* p);

// Whether the flags (0 or 255 a pixel, control->width x control->height, rows flagStep apart)
// differ from those of the last cut. Compares the rounded sum of the flag bytes with the one
// recorded, on their low 32 bits; records the new sum when they differ. Two stroke sets that
// cover the same number of pixels count as unchanged: the test costs one pass and catches the
// common case, an added stroke.
bool isConstsChanged(const unsigned char* flags, int flagStep, GrabCutControl* control);

}  // namespace qx
