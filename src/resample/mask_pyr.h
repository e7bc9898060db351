// One matting job at up to four resolutions: three colour planes, a known map and an alpha
// plane, halved from level to level. The caller solves at the coarsest level and brings the
// alpha back up, each step guided by the colour of the finer level.
//
// Level 0 is the caller's own images, borrowed and never deleted. Levels 1 to 3 are made and
// owned by the pyramid.
#pragma once

#include "image/img.h"

namespace qx {

class CMaskPyr {
public:
    CMaskPyr();
    // Deletes the owned levels. An overwritten guard row of one of them is reported as the
    // thrown int 103 after all of them are released (unless another exception is in flight).
    ~CMaskPyr() noexcept(false);
    CMaskPyr(const CMaskPyr&) = delete;
    CMaskPyr& operator=(const CMaskPyr&) = delete;

    // planes: three colour planes; known: the known map (0 or 255); alpha: the alpha plane.
    // Level l + 1 is (w + 1) / 2 x (h + 1) / 2 for an alpha of w x h at level l; colour planes
    // are smoothed and decimated, known and alpha plainly decimated, and an odd size repeats
    // the last written row, then the last written column.
    // Returns 0; 1 when refused, with nothing changed: levels outside 0..3, a null image, an
    // image smaller than alpha at level 0, or a level whose alpha is narrower or lower than 2.
    // Allocation failures throw the ints of image/img.h; the levels made so far stay in the
    // pyramid and cleanUp deletes them.
    int build(GIMG<unsigned char>** planes, GIMG<unsigned char>* known,
              GIMG<unsigned char>* alpha, int levels);

    // Forgets level 0, deletes levels 1 to 3; `levels` stays as it is.
    void cleanUp();

    // Brings the alpha of `level` up into the alpha of level - 1 (guided by the colour of
    // level - 1, sigma 9). Returns what CUpSampleQX2X returns; 0 for a level outside
    // 1..levels.
    int upSamplingOneLevel(int level);
    // The whole way down, from the coarsest level to level 0. Returns 1.
    int upSampling();

    // Images of a level; null for a level above `levels` (or below 0).
    GIMG<unsigned char>* getPlane(int index, int level) const;  // index 0..2
    GIMG<unsigned char>* getKnown(int level) const;
    GIMG<unsigned char>* getAlpha(int level) const;
    int getLevels() const { return levels; }

    int levels;
    GIMG<unsigned char>* plane0[4];
    GIMG<unsigned char>* plane1[4];
    GIMG<unsigned char>* plane2[4];
    GIMG<unsigned char>* known[4];
    GIMG<unsigned char>* alpha[4];

private:
    // Deletes levels 1 to 3 and clears level 0; returns the first int a destructor threw.
    int releaseLevels();
};

}  // namespace qx
