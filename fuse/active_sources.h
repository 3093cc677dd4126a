// The sources that really feed one planned tensor, and the plan's method moved
// onto them: the last step between a plan and the blend kernel.
//
// Pure function of the plan; safe on any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "fuse/tensor_plan.h"
#include "recipe/recipe.h"

namespace tevrin {

struct ActiveSources {
    std::vector<int32_t> sources;  // source indices to decode, ascending; [0] is the base
                                   // unless a single source gives the tensor
    MethodSpec spec;               // weights and pick index by position in `sources`
    int32_t single = -1;           // >= 0: this source alone gives the tensor; then
                                   // `sources` is {single} and `spec` is pick 0
};

// One rule decides when a single source gives the tensor: a stacked tensor, a
// pick, or only one source left. A weight list follows its sources; a source
// the list does not reach gets the method's weight fill. Fails with "base is
// missing tensor <name>" when the base does not feed an unstacked tensor.
ActiveSources active_sources(const TensorPlan& plan);

}  // namespace tevrin
