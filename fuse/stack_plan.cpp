#include "fuse/stack_plan.h"

#include <stdexcept>

namespace tevrin {

namespace {

// Output layer `out_layer` gets the tensors of the base's template layer, by
// suffix and in the base's order, each from `slice`'s layer, or the base's own
// tensor where that layer lacks it or holds it in another shape.
void plan_output_layer(PlanContext& ctx, int32_t out_layer, const StackSlice& slice) {
    const SourceModel& base = *ctx.sources[0];
    const SourceModel& source = *ctx.sources[size_t(slice.source)];
    const std::string template_prefix =
        "blk." + std::to_string(template_layer(slice, ctx.sources)) + ".";
    const int64_t n = tensor_count(base);
    for (int64_t t = 0; t < n; ++t) {
        const std::string template_name = tensor_name(base, t);
        if (template_name.compare(0, template_prefix.size(), template_prefix) != 0) {
            continue;
        }
        const std::string suffix = block_suffix(template_name);
        const std::string out_name = "blk." + std::to_string(out_layer) + "." + suffix;
        const std::string source_name = "blk." + std::to_string(slice.layer) + "." + suffix;
        const auto found = source.tensor_index.find(source_name);
        if (found != source.tensor_index.end() &&
            tensor_shape(source, found->second) == tensor_shape(base, t)) {
            add_tensor_plan(ctx, out_name, source, found->second, template_name, out_layer,
                            slice.source);
        } else {
            add_tensor_plan(ctx, out_name, base, t, template_name, out_layer, 0);
            ctx.plans.back().fallback = true;
            ctx.plans.back().dropped[size_t(slice.source)] =
                drop_reason(base, tensor_shape(base, t), source,
                            found == source.tensor_index.end() ? -1 : found->second);
        }
    }
}

}  // namespace

// A source index outside the list (which the recipe parser already rules out) gets
// the same message as a layer out of range, rather than an out-of-bounds read.
void check_stack_ranges(const Recipe& recipe, const SourceList& sources) {
    for (const StackSlice& slice : recipe.stack) {
        const bool known_source = slice.source >= 0 && size_t(slice.source) < sources.size();
        if (!known_source || slice.layer < 0 ||
            slice.layer >= sources[size_t(slice.source)]->n_layer) {
            throw std::runtime_error("stack layer " + std::to_string(slice.layer) +
                                     " out of range for source " + std::to_string(slice.source));
        }
    }
}

int32_t template_layer(const StackSlice& slice, const SourceList& sources) {
    if (slice.source == 0) {
        return slice.layer;
    }
    return map_layer(slice.layer, sources[size_t(slice.source)]->n_layer, sources[0]->n_layer);
}

void plan_stack(PlanContext& ctx) {
    plan_base_tensors(ctx, false);
    for (size_t i = 0; i < ctx.recipe.stack.size(); ++i) {
        plan_output_layer(ctx, int32_t(i), ctx.recipe.stack[i]);
    }
}

}  // namespace tevrin
