#include "fuse/type_choice.h"

#include <stdexcept>

#include <ggml.h>

namespace tevrin {

namespace {

// A u32 or i32 key, or the first element of an array of them; `fallback` when
// the key is missing or of another type.
uint32_t count_key(const gguf_context* g, const std::string& key, uint32_t fallback) {
    const int64_t id = gguf_find_key(g, key.c_str());
    if (id < 0) {
        return fallback;
    }
    switch (gguf_get_kv_type(g, id)) {
        case GGUF_TYPE_UINT32:
            return gguf_get_val_u32(g, id);
        case GGUF_TYPE_INT32:
            return uint32_t(gguf_get_val_i32(g, id));
        case GGUF_TYPE_ARRAY: {
            const gguf_type t = gguf_get_arr_type(g, id);
            if (gguf_get_arr_n(g, id) == 0 || (t != GGUF_TYPE_UINT32 && t != GGUF_TYPE_INT32)) {
                return fallback;
            }
            return *static_cast<const uint32_t*>(gguf_get_arr_data(g, id));
        }
        default:
            return fallback;
    }
}

// What `keep` makes of a source type: itself, unless ggml cannot make it without
// an importance matrix.
int32_t kept_type(int32_t source) {
    return ggml_quantize_requires_imatrix(ggml_type(source)) ? int32_t(GGML_TYPE_Q8_0) : source;
}

const TypeRule* last_matching_rule(const Recipe& recipe, const std::string& name) {
    for (auto rule = recipe.type_rules.rbegin(); rule != recipe.type_rules.rend(); ++rule) {
        if (glob_match(rule->pattern, name)) {
            return &*rule;
        }
    }
    return nullptr;
}

void apply_type_rule(TensorPlan& plan, const TypeRule& rule) {
    if (rule.out.keep) {
        plan.out_type = kept_type(plan.source_type);
        return;
    }
    const ggml_type type = ggml_type(rule.out.type);
    if (plan.ne[0] % ggml_blck_size(type) != 0) {
        throw std::runtime_error(std::string("type ") + ggml_type_name(type) +
                                 " does not fit tensor " + plan.name + " (rows of " +
                                 std::to_string(plan.ne[0]) + ")");
    }
    plan.out_type = rule.out.type;
}

std::string type_name(int32_t type) {
    return ggml_type_name(ggml_type(type));
}

// The word that decided a plan's type: its last matching type line, else `out`.
const OutType& deciding_word(const TensorPlan& plan, const Recipe& recipe) {
    const TypeRule* rule = plan.n_dims >= 2 ? last_matching_rule(recipe, plan.name) : nullptr;
    return rule != nullptr ? rule->out : recipe.out;
}

// Whether the run asked for the plan's type by a word that needs a matrix: a
// matrix-only word that the tensor got, or a mix's tensors of its matrix-only type.
bool asks_for_matrix(const TensorPlan& plan, const Recipe& recipe) {
    const OutType& word = deciding_word(plan, recipe);
    if (plan.n_dims < 2 || word.keep) {
        return false;
    }
    if (word.mix != QuantMix::none) {
        return mix_quantizes(plan.name, plan.n_dims) &&
               mix_needs_matrix(word.mix, plan.name, plan.out_type);
    }
    return word.needs_matrix && plan.out_type == word.type;
}

// Whether the tensor cannot be made without its own entry: ggml needs one for the
// type, or the run asked for a type that is garbage without one. `keep` re-encodes
// what ggml can make without, as it always has.
bool needs_entry(const TensorPlan& plan, const Recipe& recipe) {
    if (ggml_quantize_requires_imatrix(ggml_type(plan.out_type))) {
        return true;
    }
    const OutType& word = deciding_word(plan, recipe);
    if (plan.n_dims < 2 || word.keep || !mix_quantizes(plan.name, plan.n_dims)) {
        return false;
    }
    return mix_needs_matrix(word.mix, plan.name, plan.out_type);
}

}  // namespace

ModelFacts read_model_facts(const SourceModel& base, int32_t output_layers) {
    ModelFacts facts;
    facts.arch = base.arch;
    facts.n_layer = output_layers;
    facts.n_head = count_key(base.gguf, base.arch + ".attention.head_count", 0);
    facts.n_head_kv = count_key(base.gguf, base.arch + ".attention.head_count_kv", facts.n_head);
    facts.n_expert = count_key(base.gguf, base.arch + ".expert_count", 0);
    return facts;
}

void settle_output_types(std::vector<TensorPlan>& plans, const Recipe& recipe,
                         const ModelFacts& facts) {
    if (recipe.out.mix != QuantMix::none) {
        std::vector<MixTensor> tensors;
        tensors.reserve(plans.size());
        for (const TensorPlan& plan : plans) {
            tensors.push_back({plan.name, plan.n_dims, plan.ne, kept_type(plan.source_type)});
        }
        const std::vector<int32_t> types = mix_types(recipe.out.mix, tensors, facts);
        for (size_t i = 0; i < plans.size(); ++i) {
            plans[i].out_type = plans[i].n_dims == 1 ? int32_t(GGML_TYPE_F32) : types[i];
        }
    }
    if (recipe.type_rules.empty()) {
        return;
    }
    for (TensorPlan& plan : plans) {
        const TypeRule* rule = plan.n_dims >= 2 ? last_matching_rule(recipe, plan.name) : nullptr;
        if (rule != nullptr) {
            apply_type_rule(plan, *rule);
        }
    }
}

void attach_importance(std::vector<TensorPlan>& plans, const Recipe& recipe,
                       const ImportanceMatrix* matrix) {
    for (TensorPlan& plan : plans) {
        if (matrix == nullptr) {
            if (asks_for_matrix(plan, recipe)) {
                throw std::runtime_error("type " + type_name(plan.out_type) +
                                         " needs an importance matrix (--imatrix)");
            }
            continue;
        }
        if (!ggml_is_quantized(ggml_type(plan.out_type))) {
            continue;
        }
        const auto found = matrix->entries.find(plan.importance_name);
        if (found == matrix->entries.end()) {
            if (needs_entry(plan, recipe)) {
                throw std::runtime_error("tensor " + plan.name +
                                         " has no importance matrix entry, which type " +
                                         type_name(plan.out_type) + " needs");
            }
            continue;
        }
        const int64_t expected = plan.ne[0] * plan.ne[2] * plan.ne[3];  // a list per matrix
        if (int64_t(found->second.size()) != expected) {
            throw std::runtime_error("importance matrix entry " + found->first + " holds " +
                                     std::to_string(found->second.size()) + " values, tensor " +
                                     plan.name + " needs " + std::to_string(expected));
        }
        plan.importance = &found->second;
    }
}

}  // namespace tevrin
