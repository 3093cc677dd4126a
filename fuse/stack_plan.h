// Planning of a stacked run: every output layer is one whole layer of one source.
//
// Shared tensors (outside the blocks) come first, planned by the recipe's rules;
// then each output layer takes the tensors of its template layer of the base, by
// suffix, from the slice's source, or falls back to the base's tensor.
//
// Threads: driver thread only, like the rest of planning.
#pragma once

#include "fuse/tensor_plan.h"

namespace tevrin {

// Fails with "stack layer <l> out of range for source <s>".
void check_stack_ranges(const Recipe& recipe, const SourceList& sources);

// The base layer whose tensors (and per-layer metadata) a slice's output layer
// takes as its template: the slice's layer for the base, else the base layer
// that map_layer pairs with it.
int32_t template_layer(const StackSlice& slice, const SourceList& sources);

void plan_stack(PlanContext& ctx);

}  // namespace tevrin
