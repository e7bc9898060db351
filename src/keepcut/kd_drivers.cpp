// Placeholder until the drivers land.
#include "keepcut/kd_drivers.h"

namespace qx {

void computeAlphaKDTreeHiRes(KeepCutRequest*) { throw -1000; }
void computeAlphaKDTreePyramid(KeepCutRequest*) { throw -1000; }

}  // namespace qx
