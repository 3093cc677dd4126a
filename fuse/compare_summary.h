// The means of a comparison's figures: per layer and overall, per role and over
// every tensor, each weighted by the tensors' parameters. Figures that are
// undefined (NaN) stay out of every mean. Pure; safe on any thread.
#pragma once

#include "fuse/compare.h"

namespace tevrin {

// Fills result.layers and result.overall from result.tensors and result.paths.
void summarise(Comparison& result);

}  // namespace tevrin
