// The tri-map job's finish with the flows' solve in its run (qxMaskAlphaFlow's): for the engines
// that run the tri-map job themselves (the stroke engine's qxStrokesToAlphaFlow).
#pragma once

#include "matting/mask_job.h"

namespace qx::flows {

MattingFinish flowFinish();

}  // namespace qx::flows
