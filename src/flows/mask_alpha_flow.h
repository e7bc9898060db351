// The tri-map job's finish with the flows' solve in its run (qxMaskAlphaFlow's): for the engines
// that run the tri-map job themselves (the stroke engine's qxStrokesToAlphaFlow).
#pragma once

#include "matting/mask_job.h"

namespace qx::flows {

// What the run is: a tri-map's band; the first solve of a tri-map's band that is solved again
// on the tri-map tightened from it, and that second solve; the first solve of strokes, which
// leave most pixels undecided and far from what is known, so it is taken further (their second
// solve is a band's).
enum class FlowRun { Band, FirstOfBand, SecondOfBand, FirstOfStrokes };

MattingFinish flowFinish(FlowRun run = FlowRun::Band);

}  // namespace qx::flows
