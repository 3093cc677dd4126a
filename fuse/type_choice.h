// The second half of planning: settles each plan's output type where it depends on
// more than the tensor itself (a named mix, the recipe's "type" lines), and hands
// each plan its importance-matrix entry. Runs once per run, after every plan is
// made and before the output is opened, so its failures leave no file behind.
#pragma once

#include <vector>

#include "fuse/quant_mix.h"
#include "fuse/tensor_plan.h"
#include "model/imatrix.h"
#include "recipe/recipe.h"

namespace tevrin {

// The facts the mix rules read, from the base's metadata and the output's depth:
// head counts of the first layer (an array key gives its first element), a
// missing key-value head count taken as the head count, no expert count as 0.
ModelFacts read_model_facts(const SourceModel& base, int32_t output_layers);

// For a mix, every plan's type by the mix rules (tensors the mix leaves alone keep
// their source type as `keep` would); then, for tensors of two or more dimensions,
// the last matching "type" line. Fails with "type <t> does not fit tensor <name>
// (rows of <n>)" when a "type" line names a type whose block does not divide the
// row, and with the mix rules' own failures.
void settle_output_types(std::vector<TensorPlan>& plans, const Recipe& recipe,
                         const ModelFacts& facts);

// Points each plan whose output type is quantized at its entry of `matrix` (which
// must outlive the plans; null when the run has none). Fails with
// "type <t> needs an importance matrix (--imatrix)" when a tensor's type cannot
// be made without one and the run has none; "importance matrix entry <name> holds
// <n> values, tensor <t> needs <m>" for an entry of the wrong length; and
// "tensor <name> has no importance matrix entry, which type <t> needs".
void attach_importance(std::vector<TensorPlan>& plans, const Recipe& recipe,
                       const ImportanceMatrix* matrix);

}  // namespace tevrin
