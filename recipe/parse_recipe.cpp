#include "recipe/parse_recipe.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "recipe/method_table.h"
#include "recipe/recipe_warnings.h"

namespace tevrin {
namespace {

constexpr const char* kTrimSet = " \t\r\n";
constexpr const char* kSpaceSet = " \t\n\v\f\r";  // isspace in the C locale

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kTrimSet);
    if (first == std::string::npos) {
        return "";
    }
    const size_t last = text.find_last_not_of(kTrimSet);
    return text.substr(first, last - first + 1);
}

std::vector<std::string> split_tokens(const std::string& line) {
    std::vector<std::string> tokens;
    size_t start = line.find_first_not_of(kSpaceSet);
    while (start != std::string::npos) {
        const size_t end = line.find_first_of(kSpaceSet, start);
        tokens.push_back(line.substr(start, end == std::string::npos ? end : end - start));
        start = line.find_first_not_of(kSpaceSet, end);
    }
    return tokens;
}

// Range-checked token access; the message is the one the standard library's
// vector::at gives, spelled out so it does not depend on which library is linked.
const std::string& required_token(const std::vector<std::string>& tokens, size_t index) {
    if (index >= tokens.size()) {
        char message[128];
        std::snprintf(message, sizeof message,
                      "vector::_M_range_check: __n (which is %zu) >= this->size() (which is %zu)",
                      index, tokens.size());
        throw std::out_of_range(message);
    }
    return tokens[index];
}

// Far beyond any real model's depth; it keeps a typo such as "0:0-2000000000"
// from expanding into billions of entries before the layer check can see them.
constexpr int64_t kLongestStack = 65536;

struct LayerRange {
    int32_t first = 0;
    int32_t last = 0;
};

using Warnings = std::vector<std::string>*;

int32_t lenient_int(const std::string& text, Warnings warnings) {
    std::string rest;
    const int32_t value = read_int(text, rest);
    if (warnings != nullptr && !rest.empty()) {
        warnings->push_back("'" + text + "' is read as " + std::to_string(value) +
                            ": the text behind the number is ignored");
    }
    return value;
}

// "a-b" or "a", cut at the first '-': so "-1-3" has an empty first part and fails.
LayerRange read_range(const std::string& token, Warnings warnings) {
    const size_t dash = token.find('-');
    LayerRange range;
    range.first = lenient_int(token.substr(0, dash), warnings);
    range.last =
        dash == std::string::npos ? range.first : lenient_int(token.substr(dash + 1), warnings);
    return range;
}

// "src:a-b" or "src:a" appends one entry per layer; a reversed range appends none.
void append_slice(const std::string& token, std::vector<StackSlice>& stack, Warnings warnings) {
    const size_t colon = token.find(':');
    if (colon == std::string::npos) {
        throw std::invalid_argument("stack slice needs src:a-b");
    }
    const int32_t source = lenient_int(token.substr(0, colon), warnings);
    const LayerRange range = read_range(token.substr(colon + 1), warnings);
    const int64_t count = std::max<int64_t>(int64_t(range.last) - range.first + 1, 0);
    if (count > kLongestStack - int64_t(stack.size())) {
        throw std::invalid_argument("stack too long (at most " + std::to_string(kLongestStack) +
                                    " layers)");
    }
    for (int64_t layer = range.first; layer <= range.last; ++layer) {
        stack.push_back({source, static_cast<int32_t>(layer)});
    }
}

// "type <glob> <word>": a plain type word or keep; a mix names no single type.
TypeRule parse_type_rule(const std::vector<std::string>& tokens, const std::string& line) {
    const std::string& pattern = required_token(tokens, 1);
    const std::string& word = required_token(tokens, 2);
    const OutType out = parse_out_type(word);
    if (out.mix != QuantMix::none) {
        throw std::invalid_argument("'" + word + "' is a mix, not a tensor type");
    }
    return TypeRule{pattern, out, line};
}

// `line_number` goes into the rule's MethodSpec; `warnings` (may be null) gets
// what this line reads leniently.
void apply_directive(const std::vector<std::string>& tokens, const std::string& line,
                     int32_t line_number, Recipe& recipe, Warnings warnings) {
    const std::string& word = tokens[0];
    if (word == "name") {
        recipe.name = trim(line.substr(4));
    } else if (word == "out") {
        recipe.out = parse_out_type(required_token(tokens, 1));
    } else if (word == "seed") {
        std::string rest;
        recipe.seed = read_u64(required_token(tokens, 1), rest);
        if (warnings != nullptr && !rest.empty()) {
            warnings->push_back("'" + tokens[1] + "' is read as " + std::to_string(recipe.seed) +
                                ": the text behind the number is ignored");
        }
    } else if (word == "default") {
        recipe.default_spec = parse_method(tokens, 1, line, warnings);
        recipe.default_spec.line = line_number;
    } else if (word == "layers") {
        const LayerRange range = read_range(required_token(tokens, 1), warnings);
        recipe.layer_rules.push_back(
            {range.first, range.last, parse_method(tokens, 2, line, warnings)});
        recipe.layer_rules.back().spec.line = line_number;
    } else if (word == "tensor") {
        const std::string& pattern = required_token(tokens, 1);
        recipe.tensor_rules.push_back({pattern, parse_method(tokens, 2, line, warnings)});
        recipe.tensor_rules.back().spec.line = line_number;
    } else if (word == "type") {
        recipe.type_rules.push_back(parse_type_rule(tokens, line));
    } else if (word == "stack") {
        for (size_t i = 1; i < tokens.size(); ++i) {
            append_slice(tokens[i], recipe.stack, warnings);
        }
    } else {
        throw std::invalid_argument("unknown directive '" + word + "'");
    }
}

void check_spec(const MethodSpec& spec, int32_t source_count) {
    if (spec.method == BlendMethod::pick && (spec.pick < 0 || spec.pick >= source_count)) {
        throw std::invalid_argument("pick index out of range in: " + spec.text);
    }
    if (method_info(spec.method).needs_two_sources && source_count < 2) {
        throw std::invalid_argument("slerp / nearswap need at least 2 sources");
    }
}

// Runs after the last line, so a bad line anywhere is reported before these.
void check_recipe(const Recipe& recipe, int32_t source_count) {
    check_spec(recipe.default_spec, source_count);
    for (const LayerRule& rule : recipe.layer_rules) {
        check_spec(rule.spec, source_count);
    }
    for (const TensorRule& rule : recipe.tensor_rules) {
        check_spec(rule.spec, source_count);
    }
    for (const StackSlice& slice : recipe.stack) {
        if (slice.source < 0 || slice.source >= source_count) {
            throw std::invalid_argument("stack source index out of range");
        }
    }
}

}  // namespace

Recipe parse_recipe(const std::string& text, int32_t source_count,
                    std::vector<std::string>* warnings) {
    Recipe recipe;
    recipe.default_spec.method = source_count <= 1 ? BlendMethod::pick : BlendMethod::linear;

    size_t line_number = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t feed = text.find('\n', pos);
        const size_t end = feed == std::string::npos ? text.size() : feed;
        std::string raw = text.substr(pos, end - pos);
        pos = end + 1;
        ++line_number;

        const size_t hash = raw.find('#');
        if (hash != std::string::npos) {
            raw.erase(hash);
        }
        const std::string line = trim(raw);
        // A line of only vertical tabs and form feeds survives the trim but has
        // no tokens; it is skipped like an empty line.
        const std::vector<std::string> tokens = split_tokens(line);
        if (tokens.empty()) {
            continue;
        }
        const std::string prefix = "recipe line " + std::to_string(line_number) + ": ";
        std::vector<std::string> line_warnings;
        auto keep_warnings = [&] {
            for (const std::string& warning : line_warnings) {
                warnings->push_back(prefix + warning);
            }
        };
        try {
            apply_directive(tokens, line, int32_t(std::min<size_t>(line_number, INT32_MAX)), recipe,
                            warnings != nullptr ? &line_warnings : nullptr);
        } catch (const std::exception& e) {
            if (warnings != nullptr) {
                keep_warnings();
            }
            throw std::invalid_argument(prefix + e.what());
        }
        if (warnings != nullptr) {
            keep_warnings();
        }
    }
    check_recipe(recipe, source_count);
    if (warnings != nullptr) {
        const std::vector<std::string> more = recipe_warnings(recipe, source_count);
        warnings->insert(warnings->end(), more.begin(), more.end());
    }
    return recipe;
}

}  // namespace tevrin
