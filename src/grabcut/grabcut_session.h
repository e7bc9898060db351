// The GrabCut engine's entries, for its exports and for the workflows. Each takes a request its
// export would accept and throws what it meets (the exports turn that into their statuses).
#pragma once

#include "qxiveilon31.h"

namespace qx {

// One cut of a session (qxGrabCut). A cancelled cut leaves the session as it was.
void cut(GrabCutRequest& request, int mode);

// Ends a session (qxGrabCutDeleteBuf): its control freed and request.control set to null, the
// codes settled in mask and (when given) result. False, with nothing changed, for a control
// that is not one of ours.
bool endSession(GrabCutRequest& request);

// The undecided band of about bandWidth pixels along the selection's edge, written to mask
// (qxGrabCutEdgeGen); nothing for a width outside 0..32767.
void edgeGen(const GrabCutRequest& request, int bandWidth);

}  // namespace qx
