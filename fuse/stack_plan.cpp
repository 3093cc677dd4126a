#include "fuse/stack_plan.h"

#include <stdexcept>

namespace tevrin {

namespace {

// An array under "<arch>." with one element per layer describes the layers one
// by one (head counts, window sizes, ...); a restacked output would no longer
// match it. Only the base is looked at; other arrays, such as the tokenizer's,
// never count.
void check_per_layer_metadata(const SourceModel& base) {
    const std::string prefix = base.arch + ".";
    const int64_t n_kv = gguf_get_n_kv(base.gguf);
    for (int64_t id = 0; id < n_kv; ++id) {
        if (gguf_get_kv_type(base.gguf, id) != GGUF_TYPE_ARRAY ||
            gguf_get_arr_n(base.gguf, id) != size_t(int64_t(base.n_layer))) {
            continue;
        }
        const std::string key = gguf_get_key(base.gguf, id);
        if (key.compare(0, prefix.size(), prefix) == 0) {
            throw std::runtime_error("stack not supported: per-layer metadata " + key);
        }
    }
}

// Output layer `out_layer` gets the tensors of the base's template layer, by
// suffix and in the base's order, each from `slice`'s layer, or the base's own
// tensor where that layer lacks it or holds it in another shape.
void plan_output_layer(PlanContext& ctx, int32_t out_layer, const StackSlice& slice) {
    const SourceModel& base = *ctx.sources[0];
    const SourceModel& source = *ctx.sources[size_t(slice.source)];
    const int32_t template_layer =
        slice.source == 0 ? slice.layer : map_layer(slice.layer, source.n_layer, base.n_layer);
    const std::string template_prefix = "blk." + std::to_string(template_layer) + ".";
    const int64_t n = gguf_get_n_tensors(base.gguf);
    for (int64_t t = 0; t < n; ++t) {
        const std::string template_name = gguf_get_tensor_name(base.gguf, t);
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

void plan_stack(PlanContext& ctx) {
    check_per_layer_metadata(*ctx.sources[0]);
    plan_base_tensors(ctx, false);
    for (size_t i = 0; i < ctx.recipe.stack.size(); ++i) {
        plan_output_layer(ctx, int32_t(i), ctx.recipe.stack[i]);
    }
}

}  // namespace tevrin
