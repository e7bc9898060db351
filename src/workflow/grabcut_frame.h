// What the workflows' GrabCut calls share (qxwSelectSubject and the session of qxwGrabCutBegin):
// the framing of the caller's rectangle, the library request over the session's planes, and
// the tri-map from the selection's edge.
#pragma once

#include <opencv2/core.hpp>

#include "qxiveilon31.h"

namespace qx::workflow {

// The library starts a session with a frame of sure background just inside its region. Our
// rectangle means everything outside it is background and everything inside it is for the cut
// to decide, so the region is the rectangle grown by a margin wider than that frame, the margin
// fixed to background (code 1); where the image's border stops the growth, the frame inside the
// rectangle is marked probable foreground (250). Painted codes (255, 1) stay. Returns the region.
cv::Rect prepareFrame(cv::Mat& codes, const cv::Rect& rect);

// A request over src (BGRA), the codes and the result plane, for the region roi; no progress.
GrabCutRequest grabCutRequest(cv::Mat& src, cv::Mat& codes, cv::Mat& result, const cv::Rect& roi);

// The tri-map of the request's selection (its result plane) with an undecided band of `band`
// pixels along the edge: 255 subject, 0 background, 128 undecided. The request's mask is used
// for the band and given back.
cv::Mat edgeTrimap(GrabCutRequest& req, int band);

}  // namespace qx::workflow
