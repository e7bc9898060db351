// The tri-map job's finish with the flows' solve in its run (qxMaskAlphaFlow's): for the engines
// that run the tri-map job themselves (the stroke engine's qxStrokesToAlphaFlow).
#pragma once

#include "matting/mask_job.h"

namespace qx::flows {

// What the run is: a tri-map's band, or strokes, which leave most pixels undecided and far from
// what is known, so their solve is taken further.
enum class FlowRun { Band, Strokes };

MattingFinish flowFinish(FlowRun run = FlowRun::Band);

}  // namespace qx::flows
