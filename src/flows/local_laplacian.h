// Local flow: the closed-form matting Laplacian over 3x3 windows, the one the workflows' tri-map
// job builds (matting/cfmatt.h: window affinities through a Cholesky factor of the regularised
// colour covariance), taken here as rows of the undecided pixels for the combined system.
#pragma once

#include "flows/colour_mixture.h"
#include "flows/flow_image.h"

namespace qx::flows {

// Row r (the undecided pixel sets.unknown[r]) holds the Laplacian's entries in its 5x5
// neighbourhood, columns box pixels ascending, the diagonal among them. Windows are centred on
// every pixel whose window holds an undecided pixel, inside the box. `epsilon` is the colour
// model's regularisation as the matting job takes it. Throws as the matting job's Laplacian does.
WeightRows localLaplacianRows(const FlowImage& image, const PixelSets& sets, double epsilon);

}  // namespace qx::flows
