// Warnings that need the sources: a rule that chooses no tensor (it matches none,
// or later rules take all it matches), a layer range beyond the base's depth, and
// a pick of a source that has none of the tensors its rule chooses. They never
// change the plan or make a run fail. Every warning starts with "recipe line N: ".
//
// Pure function of the recipe and the plan; driver thread.
#pragma once

#include <string>
#include <vector>

#include "fuse/plan_run.h"

namespace tevrin {

std::vector<std::string> plan_warnings(const Recipe& recipe, const RunPlan& run);

}  // namespace tevrin
