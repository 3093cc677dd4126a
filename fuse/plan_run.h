// The plan of a whole run, made before the output is touched: the notes on the
// sources, the range check of a stack, and one TensorPlan per output tensor in
// output order.
//
// Reads the sources and the recipe only; runs on the driver's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuse/tensor_plan.h"

namespace tevrin {

struct RunPlan {
    int32_t output_layers = 0;  // the base's depth, or the stack's length
    std::vector<TensorPlan> plans;
    std::vector<std::string> notes;  // unsorted; the driver sorts and joins them
};

// Fails with "add at least one source model" or "at most 8 source models".
void check_source_count(const std::vector<std::string>& paths);

// Opens every path in order, appending to `sources`; fails like SourceModel::open.
void open_sources(const std::vector<std::string>& paths, SourceList& sources);

// Output types are settled (mix rules, type lines) before it returns. Fails like
// check_stack_ranges and plan_stack for a stacked recipe, and like
// settle_output_types.
RunPlan plan_run(const Recipe& recipe, const SourceList& sources);

// The notes sorted, without repeats, joined by "; " (empty for none).
std::string join_notes(std::vector<std::string> notes);

}  // namespace tevrin
