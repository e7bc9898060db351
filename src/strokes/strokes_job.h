// The stroke engine's entry, for its exports (qxStrokesToAlpha, qxStrokesToAlphaFlow) and the
// workflows.
#pragma once

#include "matting/mask_job.h"
#include "qxiveilon31.h"

namespace qx {

// Alpha from the request's coded strokes, written to its alpha plane (painted pixels as
// painted), the box of the unpainted pixels solved with `finish`: MattingFinish::plain() (the
// closed-form solution as it comes) or the flows' (flows::flowFinish, whose runs the tri-map job
// keeps to its limit of undecided pixels). With `second`, the first solve's alpha is made a
// tighter tri-map (its clear values decided, the rest undecided) and solved again with that
// finish. The budget is budgetBytes, else the request's memoryBudgetMB, else the library's. The
// request must be valid (the exports check it). Returns 1; failures are thrown.
int strokesJob(const StrokeMatteRequest& r, const MattingFinish& finish, double budgetBytes = 0.0,
               const MattingFinish* second = nullptr);

// The stroke engine of the flows (qxStrokesToAlphaFlow, the workflows'): the first solve
// without the colour mixture, at half size where it would be at full size, then again on the
// tightened tri-map with a band's finish.
int strokesFlowJob(const StrokeMatteRequest& r, double budgetBytes = 0.0);

}  // namespace qx
