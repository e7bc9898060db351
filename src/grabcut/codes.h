// The GrabCut tools' view of the host's code plane. Bit 0 set: fixed by the user, the code is a
// constraint and comes back unchanged; 1 and 255 are the canonical fixed background and
// foreground, 126 the brush's "undecided". Below 10 is the background side, above 245 the
// foreground side, anything between no opinion.
#pragma once

namespace qx {

// What a cut sees of a code: a working code's bit 0 takes the value of its bit 1, so that 126
// becomes 127 (no opinion) and other even values themselves or one more. A fixed code is
// changed the same way, but its flag brings it back after the cut.
inline unsigned char workingCode(unsigned char m) {
    return static_cast<unsigned char>((m & 254) + ((m >> 1) & 1));
}

// The code a pixel keeps when the session ends: 0 and 1 become 1, 254 and 255 become 255
// (fixed background and foreground), every other value loses its low bit.
inline unsigned char settledCode(unsigned char m) {
    return static_cast<unsigned char>((m & 254) + ((m >= 254 || m < 2) ? 1 : 0));
}

}  // namespace qx
