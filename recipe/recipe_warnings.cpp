#include "recipe/recipe_warnings.h"

#include <algorithm>

namespace tevrin {
namespace {

size_t longest_weight_list(const MethodSpec& spec) {
    size_t longest = std::max(spec.weights.size(), spec.weights_end.size());
    for (const auto& inner : spec.weights_inner) {
        longest = std::max(longest, inner.size());
    }
    return longest;
}

void check_weight_count(const MethodSpec& spec, int32_t source_count,
                        std::vector<std::string>& warnings) {
    const size_t count = longest_weight_list(spec);
    if (count > size_t(source_count)) {
        warnings.push_back(line_prefix(spec.line) + std::to_string(count) + " weights for " +
                           std::to_string(source_count) +
                           (source_count == 1 ? " source" : " sources") +
                           ": the ones beyond the last source are ignored");
    }
}

void check_pattern(const TensorRule& rule, std::vector<std::string>& warnings) {
    const size_t special = rule.pattern.find_first_of("[]{}");
    if (special != std::string::npos) {
        warnings.push_back(line_prefix(rule.spec.line) + "'" + rule.pattern[special] + "' in '" +
                           rule.pattern +
                           "' is matched literally: only '*' and '?' are special in a pattern");
    }
}

}  // namespace

std::string line_prefix(int32_t line) {
    return "recipe line " + std::to_string(line) + ": ";
}

std::vector<std::string> recipe_warnings(const Recipe& recipe, int32_t source_count) {
    std::vector<std::string> warnings;
    if (recipe.default_spec.line > 0) {
        check_weight_count(recipe.default_spec, source_count, warnings);
    }
    for (const LayerRule& rule : recipe.layer_rules) {
        const std::string range =
            "layers " + std::to_string(rule.first) + "-" + std::to_string(rule.last);
        if (!recipe.stack.empty()) {
            warnings.push_back(line_prefix(rule.spec.line) + range +
                               " applies to nothing in a stacked run: stacked layers are "
                               "copied whole from their source");
        } else if (rule.first > rule.last) {
            warnings.push_back(line_prefix(rule.spec.line) + range +
                               " is empty: the first layer is above the last");
        }
        check_weight_count(rule.spec, source_count, warnings);
    }
    for (const TensorRule& rule : recipe.tensor_rules) {
        check_pattern(rule, warnings);
        check_weight_count(rule.spec, source_count, warnings);
    }
    return warnings;
}

}  // namespace tevrin
