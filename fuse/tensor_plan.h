// The decision for every output tensor, made before the first byte is written:
// name, shape, output type, which tensor of which source feeds it, and which
// method applies with its schedule evaluated for the tensor's layer.
//
// Threads: planning runs on the driver's thread; plans are read-only afterwards
// and may be read from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuse/drop_reason.h"
#include "model/source_model.h"
#include "recipe/recipe.h"

namespace tevrin {

struct TensorPlan {
    std::string name;
    int32_t n_dims = 1;
    std::array<int64_t, 4> ne = {1, 1, 1, 1};
    int32_t out_type = 0;
    std::vector<int64_t> source_tensors;  // one per source; -1: that source does not feed it
    MethodSpec spec;                      // resolved for this tensor's layer
    bool fallback = false;
    int32_t only_source = -1;         // >= 0: this source alone feeds the tensor (stacked runs)
    std::vector<DropReason> dropped;  // one per source: why it does not feed the tensor
    // One per source: the rows, counted from row 0, that the source gives. All rows
    // for a source that feeds the tensor, 0 for one that does not, fewer for a donor
    // aligned on a shared vocabulary (see vocab_align.h). An empty list means that
    // every feeding source gives all rows.
    std::vector<int64_t> source_rows;
    int32_t source_type = 0;  // type of the tensor the plan was made from
    // The importance-matrix entry that follows the data: the name of the tensor in
    // the source it comes from (the stacked source layer, the picked source's
    // aligned layer), else the base's name. `importance` is set once a matrix is
    // attached and the output type is quantized.
    std::string importance_name;
    const std::vector<float>* importance = nullptr;
};

// The rows source `s` gives to `plan` (see TensorPlan::source_rows).
int64_t source_row_count(const TensorPlan& plan, size_t s);

using SourceList = std::vector<std::unique_ptr<SourceModel>>;

// What add_tensor_plan needs of the run; set up once per run by the driver.
struct PlanContext {
    const Recipe& recipe;
    int32_t output_layers;  // base n_layer, or the stack's length
    const SourceList& sources;
    std::vector<TensorPlan>& plans;
};

// Appends the plan of one output tensor. `model`/`tensor` give shape and source
// type; `lookup_name` is the name searched in every source when `only_source` is -1;
// `layer` is -1 for tensors outside the blocks. Fails only for a recipe output
// type that names no ggml type (std::invalid_argument "unknown output type <n>"),
// which parse_out_type never produces.
void add_tensor_plan(PlanContext& ctx, const std::string& name, const SourceModel& model,
                     int64_t tensor, const std::string& lookup_name, int32_t layer,
                     int32_t only_source);

// Appends the plans of the base's tensors in the base's order: all of them, or
// with `with_blocks` false only those outside the blocks.
void plan_base_tensors(PlanContext& ctx, bool with_blocks);

// Whole-text glob with '*' and '?', case-sensitive, no classes and no escapes.
bool glob_match(const std::string& pattern, const std::string& text);

// Evaluates a schedule at `layer` of the range first..last; a spec that is not
// scheduled comes back unchanged. Outside the blocks (layer < 0), or when
// last <= first, the schedule gives its midpoint. A schedule of three or more
// points runs piecewise linearly through them, spaced evenly over the range.
MethodSpec resolve_spec(const MethodSpec& spec, int32_t layer, int32_t first, int32_t last);

// The value at position num / den (0 <= num <= den, den > 0) of the piecewise
// linear line through `points`, spaced evenly from 0 to 1; a knot gives its point
// exactly. Needs num * (points - 1) within 64 bits.
float schedule_value(const std::vector<float>& points, int64_t num, int64_t den);

// Pairs `layer` of a stack of `from_count` layers with a layer of a stack of
// `to_count` layers: first meets first, last meets last.
int32_t map_layer(int32_t layer, int32_t from_count, int32_t to_count);

// The layer number of a block tensor name ("blk.<n>.<suffix>"), read as strtol
// reads it (no number reads 0; values beyond 32 bits are clamped), or -1 for a
// name that does not begin with "blk.".
int32_t block_layer(const std::string& name);

// The role of a block tensor: what follows the first '.' at or after index 4,
// or the whole name if there is none.
std::string block_suffix(const std::string& name);

}  // namespace tevrin
