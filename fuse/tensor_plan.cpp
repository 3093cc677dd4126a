#include "fuse/tensor_plan.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include <ggml.h>

#include "fuse/vocab_align.h"

namespace tevrin {

namespace {

int32_t dims_in_use(const std::array<int64_t, 4>& ne) {
    if (ne[3] >= 2) {
        return 4;
    }
    if (ne[2] >= 2) {
        return 3;
    }
    return ne[1] >= 2 ? 2 : 1;
}

bool is_ggml_type(int32_t type) {
    return type >= 0 && type < GGML_TYPE_COUNT && ggml_blck_size(ggml_type(type)) > 0;
}

// The output type of one tensor. One-dimensional tensors (norms, biases) are
// always stored as F32. `keep` takes the source's type, except for types that
// ggml cannot make without an importance matrix; a row length that is no whole
// number of blocks of the candidate falls back to F16. A type number that names
// no ggml type, such as the keep marker (43) without `keep`, fails here instead of
// reaching ggml; the recipe's type table never produces one.
int32_t choose_out_type(const OutType& out, int32_t n_dims, int64_t row_len, ggml_type source) {
    if (n_dims == 1) {
        return GGML_TYPE_F32;
    }
    int32_t candidate = out.type;
    if (out.keep) {
        candidate = ggml_quantize_requires_imatrix(source) ? GGML_TYPE_Q8_0 : source;
    } else if (!is_ggml_type(candidate)) {
        throw std::invalid_argument("unknown output type " + std::to_string(candidate));
    }
    if (row_len % ggml_blck_size(ggml_type(candidate)) != 0) {
        return GGML_TYPE_F16;
    }
    return candidate;
}

// Tensor rules beat layer rules, layer rules beat the default; among rules of one
// kind the later one wins.
MethodSpec choose_spec(const Recipe& recipe, const std::string& name, int32_t layer,
                       int32_t output_layers) {
    const int32_t last = output_layers - 1;
    for (auto rule = recipe.tensor_rules.rbegin(); rule != recipe.tensor_rules.rend(); ++rule) {
        if (glob_match(rule->pattern, name)) {
            return resolve_spec(rule->spec, layer, 0, last);
        }
    }
    if (layer >= 0) {
        for (auto rule = recipe.layer_rules.rbegin(); rule != recipe.layer_rules.rend(); ++rule) {
            if (rule->first <= layer && layer <= rule->last) {
                return resolve_spec(rule->spec, layer, rule->first, rule->last);
            }
        }
    }
    return resolve_spec(recipe.default_spec, layer, 0, last);
}

// The name under which `source` holds the tensor that the base holds as
// `lookup_name`: block tensors of a source of another depth are searched in the
// layer that map_layer pairs with `layer`.
std::string source_key(const std::string& lookup_name, int32_t layer, int32_t base_layers,
                       int32_t source_layers) {
    if (layer < 0 || source_layers == base_layers) {
        return lookup_name;
    }
    return "blk." + std::to_string(map_layer(layer, base_layers, source_layers)) + "." +
           block_suffix(lookup_name);
}

int32_t clamp_to_int32(long value) {
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : int32_t(value);
}

// Weights of a schedule of three or more points: entry i runs through entry i
// of every list, 0 where a list is too short.
std::vector<float> scheduled_weights(const MethodSpec& spec, int64_t num, int64_t den) {
    std::vector<const std::vector<float>*> lists = {&spec.weights};
    for (const auto& inner : spec.weights_inner) {
        lists.push_back(&inner);
    }
    lists.push_back(&spec.weights_end);
    size_t m = 0;
    for (const auto* list : lists) {
        m = std::max(m, list->size());
    }
    std::vector<float> weights(m);
    std::vector<float> points(lists.size());
    for (size_t i = 0; i < m; ++i) {
        for (size_t k = 0; k < lists.size(); ++k) {
            points[k] = i < lists[k]->size() ? (*lists[k])[i] : 0.0f;
        }
        weights[i] = schedule_value(points, num, den);
    }
    return weights;
}

}  // namespace

float schedule_value(const std::vector<float>& points, int64_t num, int64_t den) {
    const int64_t segments = int64_t(points.size()) - 1;
    if (segments < 1) {
        return points.empty() ? 0.0f : points[0];
    }
    const int64_t scaled = num * segments;
    const int64_t segment = std::min(scaled / den, segments - 1);
    const float q = float(scaled - segment * den) / float(den);
    const float a = points[size_t(segment)], b = points[size_t(segment) + 1];
    return (b - a) * q + a;
}

void add_tensor_plan(PlanContext& ctx, const std::string& name, const SourceModel& model,
                     int64_t tensor, const std::string& lookup_name, int32_t layer,
                     int32_t only_source) {
    TensorPlan plan;
    plan.name = name;
    plan.ne = tensor_shape(model, tensor);
    plan.n_dims = dims_in_use(plan.ne);
    plan.source_type = tensor_type(model, tensor);
    plan.out_type =
        choose_out_type(ctx.recipe.out, plan.n_dims, plan.ne[0], ggml_type(plan.source_type));
    plan.only_source = only_source;
    plan.spec = choose_spec(ctx.recipe, name, layer, ctx.output_layers);
    plan.source_tensors.assign(ctx.sources.size(), -1);
    plan.source_rows.assign(ctx.sources.size(), 0);
    plan.dropped.assign(ctx.sources.size(), DropReason::none);
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];

    if (only_source >= 0) {
        plan.source_tensors[size_t(only_source)] = tensor;
        plan.source_rows[size_t(only_source)] = rows;
        plan.importance_name = tensor_name(model, tensor);
        ctx.plans.push_back(std::move(plan));
        return;
    }
    const SourceModel& base = *ctx.sources[0];
    plan.importance_name = lookup_name;
    for (size_t s = 0; s < ctx.sources.size(); ++s) {
        const SourceModel& source = *ctx.sources[s];
        const std::string key = source_key(lookup_name, layer, base.n_layer, source.n_layer);
        const auto found = source.tensor_index.find(key);
        if (found == source.tensor_index.end()) {
            plan.fallback = plan.fallback || s != 0;
            plan.dropped[s] = s != 0 ? DropReason::missing : DropReason::none;
            continue;
        }
        const std::array<int64_t, 4> shape = tensor_shape(source, found->second);
        const bool same = shape == plan.ne;
        const int64_t shared = same || s == 0 ? 0 : shared_vocab_rows(base, source, plan.ne, shape);
        if (same || shared > 0) {
            plan.source_tensors[s] = found->second;
            plan.source_rows[s] = same ? rows : shared;
            if (same && plan.spec.method == BlendMethod::pick && plan.spec.pick == int32_t(s)) {
                plan.importance_name = key;
            }
        } else if (s != 0) {
            plan.fallback = true;
            plan.dropped[s] = drop_reason(model, plan.ne, source, found->second);
        }
    }
    ctx.plans.push_back(std::move(plan));
}

void plan_base_tensors(PlanContext& ctx, bool with_blocks) {
    const SourceModel& base = *ctx.sources[0];
    const int64_t n = tensor_count(base);
    for (int64_t i = 0; i < n; ++i) {
        const std::string name = tensor_name(base, i);
        const int32_t layer = block_layer(name);
        if (with_blocks || layer < 0) {
            add_tensor_plan(ctx, name, base, i, name, layer, -1);
        }
    }
}

int64_t source_row_count(const TensorPlan& plan, size_t s) {
    if (plan.source_tensors[s] < 0) {
        return 0;
    }
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    return s < plan.source_rows.size() ? std::min(plan.source_rows[s], rows) : rows;
}

// Backtracking over the most recent '*' only: a later '*' can absorb anything an
// earlier one would, so this gives the same answer as trying every split, in time
// bounded by the product of the two lengths, however many stars a pattern holds.
bool glob_match(const std::string& pattern, const std::string& text) {
    size_t p = 0, s = 0;
    size_t star = std::string::npos, star_text = 0;
    while (s < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            star_text = s;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[s])) {
            ++p;
            ++s;
        } else if (star != std::string::npos) {
            p = star + 1;
            s = ++star_text;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

MethodSpec resolve_spec(const MethodSpec& spec, int32_t layer, int32_t first, int32_t last) {
    MethodSpec resolved = spec;
    if (!spec.scheduled) {
        return resolved;
    }
    // The position as a fraction num / den of the range, for the schedules of
    // three or more points, whose knots must be met exactly.
    int64_t num = 1, den = 2;
    float p = 0.5f;
    if (layer >= 0 && last > first) {
        // Differences in 64 bits: a rule may span the whole 32-bit range.
        den = int64_t(last) - first;
        num = std::clamp<int64_t>(int64_t(layer) - first, 0, den);
        p = float(int64_t(layer) - first) / float(int64_t(last) - first);
        p = p < 0.0f ? 0.0f : (p > 1.0f ? 1.0f : p);
    }
    if (spec.t_inner.empty()) {
        resolved.t = (spec.t_end - spec.t) * p + spec.t;
    } else {
        std::vector<float> points = {spec.t};
        points.insert(points.end(), spec.t_inner.begin(), spec.t_inner.end());
        points.push_back(spec.t_end);
        resolved.t = schedule_value(points, num, den);
    }
    if (!spec.weights_inner.empty()) {
        resolved.weights = scheduled_weights(spec, num, den);
    } else if (!spec.weights_end.empty()) {
        const size_t m = std::max(spec.weights.size(), spec.weights_end.size());
        resolved.weights.assign(m, 0.0f);
        for (size_t i = 0; i < m; ++i) {
            const float a = i < spec.weights.size() ? spec.weights[i] : 0.0f;
            const float b = i < spec.weights_end.size() ? spec.weights_end[i] : 0.0f;
            resolved.weights[i] = (b - a) * p + a;
        }
    }
    return resolved;
}

int32_t map_layer(int32_t layer, int32_t from_count, int32_t to_count) {
    const int64_t last = int64_t(to_count) - 1;
    if (from_count < 2 || to_count < 2) {
        return int32_t(std::min<int64_t>(layer, std::max<int64_t>(last, 0)));
    }
    if (from_count == to_count) {
        return int32_t(std::min<int64_t>(layer, last));
    }
    const double scaled = double(layer) * double(last) / double(int64_t(from_count) - 1);
    return clamp_to_int32(std::lround(scaled));
}

// A number too large for 32 bits is clamped, so such a name still counts as a
// block tensor (of a layer no rule range and no source reaches).
int32_t block_layer(const std::string& name) {
    if (name.compare(0, 4, "blk.") != 0) {
        return -1;
    }
    return clamp_to_int32(std::strtol(name.c_str() + 4, nullptr, 10));
}

std::string block_suffix(const std::string& name) {
    const size_t dot = name.find('.', 4);
    return dot == std::string::npos ? name : name.substr(dot + 1);
}

}  // namespace tevrin
