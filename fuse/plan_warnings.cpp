#include "fuse/plan_warnings.h"

#include <map>

#include "recipe/recipe_warnings.h"

namespace tevrin {
namespace {

// The plans a rule can choose for: a stacked layer comes whole from its source,
// whatever rule its spec names.
bool blended_by_rules(const TensorPlan& plan) {
    return plan.only_source < 0;
}

struct RuleUse {
    int64_t chosen = 0;     // tensors the rule decides
    bool pick_met = false;  // a chosen tensor has the picked source
};

std::map<int32_t, RuleUse> rule_uses(const RunPlan& run) {
    std::map<int32_t, RuleUse> uses;
    for (const TensorPlan& plan : run.plans) {
        if (!blended_by_rules(plan)) {
            continue;
        }
        RuleUse& use = uses[plan.spec.line];
        ++use.chosen;
        const size_t pick = size_t(plan.spec.pick);
        if (plan.spec.method == BlendMethod::pick && pick < plan.source_tensors.size() &&
            plan.source_tensors[pick] >= 0) {
            use.pick_met = true;
        }
    }
    return uses;
}

std::string name_hint(const RunPlan& run) {
    for (const TensorPlan& plan : run.plans) {
        if (block_layer(plan.name) >= 0) {
            return " (names look like '" + plan.name + "'; --tensors lists them)";
        }
    }
    return run.plans.empty() ? "" : " (names look like '" + run.plans[0].name + "')";
}

bool any_named(const RunPlan& run, const std::string& pattern, bool stacked_only) {
    for (const TensorPlan& plan : run.plans) {
        if (blended_by_rules(plan) != stacked_only && glob_match(pattern, plan.name)) {
            return true;
        }
    }
    return false;
}

bool any_in_layers(const RunPlan& run, const LayerRule& rule) {
    for (const TensorPlan& plan : run.plans) {
        const int32_t layer = block_layer(plan.name);
        if (blended_by_rules(plan) && layer >= 0 && rule.first <= layer && layer <= rule.last) {
            return true;
        }
    }
    return false;
}

void check_pick(const MethodSpec& spec, const RuleUse& use, std::vector<std::string>& out) {
    if (spec.method == BlendMethod::pick && use.chosen > 0 && !use.pick_met) {
        out.push_back(line_prefix(spec.line) + "pick " + std::to_string(spec.pick) + ": source " +
                      std::to_string(spec.pick) +
                      " has none of the tensors this rule chooses; they come from the base");
    }
}

// False when the range check already said all there is to say.
bool check_range(const LayerRule& rule, int32_t layers, std::vector<std::string>& out) {
    if (rule.first > rule.last) {
        return false;  // empty: recipe_warnings names it
    }
    const std::string range =
        "layers " + std::to_string(rule.first) + "-" + std::to_string(rule.last);
    const std::string depth =
        std::to_string(layers) + " layers (0-" + std::to_string(int64_t(layers) - 1) + ")";
    if (rule.first >= layers) {
        out.push_back(line_prefix(rule.spec.line) + range + " lie beyond the base's " + depth +
                      ": the rule matches no tensor");
        return false;
    }
    if (rule.last >= layers) {
        out.push_back(
            line_prefix(rule.spec.line) + range + " reach beyond the base's " + depth +
            (rule.spec.scheduled ? ": its schedule still runs over the whole range" : ""));
    }
    return true;
}

}  // namespace

std::vector<std::string> plan_warnings(const Recipe& recipe, const RunPlan& run) {
    std::vector<std::string> out;
    const std::map<int32_t, RuleUse> uses = rule_uses(run);
    auto use_of = [&](const MethodSpec& spec) {
        const auto found = uses.find(spec.line);
        return found == uses.end() ? RuleUse{} : found->second;
    };
    if (recipe.default_spec.line > 0) {
        const RuleUse use = use_of(recipe.default_spec);
        if (use.chosen == 0 && !run.plans.empty()) {
            out.push_back(line_prefix(recipe.default_spec.line) +
                          "the default applies to no tensor: other rules take them all");
        }
        check_pick(recipe.default_spec, use, out);
    }
    if (recipe.stack.empty()) {
        for (const LayerRule& rule : recipe.layer_rules) {
            if (!check_range(rule, run.output_layers, out)) {
                continue;
            }
            const RuleUse use = use_of(rule.spec);
            if (use.chosen == 0) {
                out.push_back(line_prefix(rule.spec.line) +
                              (any_in_layers(run, rule)
                                   ? "the rule is overruled on every tensor it matches"
                                   : "the rule matches no tensor"));
            }
            check_pick(rule.spec, use, out);
        }
    }
    for (const TensorRule& rule : recipe.tensor_rules) {
        const RuleUse use = use_of(rule.spec);
        if (use.chosen == 0) {
            std::string message = "'" + rule.pattern + "' ";
            if (any_named(run, rule.pattern, false)) {
                message += "is overruled by later tensor rules on every tensor it matches";
            } else if (any_named(run, rule.pattern, true)) {
                message += "matches only stacked layers, which are copied whole";
            } else {
                message += "matches no tensor" + name_hint(run);
            }
            out.push_back(line_prefix(rule.spec.line) + message);
        }
        check_pick(rule.spec, use, out);
    }
    return out;
}

}  // namespace tevrin
