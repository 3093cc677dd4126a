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

// Rows [first, end) of a tensor that the same sources feed.
struct RowSpan {
    int64_t first = 0;
    int64_t end = 0;
    ActiveSources active;
};

// The tensor's rows, cut where a source's rows end (TensorPlan::source_rows):
// one span over all rows when every feeding source gives them all; otherwise the
// rows every source has first, then each further span without the sources that
// have ended. Rows past a donor's shared vocabulary thus come from the sources
// that have them, usually the base alone. Fails like active_sources.
std::vector<RowSpan> row_spans(const TensorPlan& plan);

}  // namespace tevrin
