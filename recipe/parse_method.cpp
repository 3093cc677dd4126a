#include <optional>
#include <stdexcept>

#include "recipe/method_table.h"
#include "recipe/recipe.h"

namespace tevrin {
namespace {

std::optional<std::string> optional_token(const std::vector<std::string>& tokens, size_t index) {
    if (index < tokens.size()) {
        return tokens[index];
    }
    return std::nullopt;
}

// "a" or "a>b": a goes to t; b, when present, to t_end and starts a schedule.
void read_scalar_arg(const std::optional<std::string>& token, float fallback, MethodSpec& spec) {
    if (!token) {
        spec.t = fallback;
        return;
    }
    const size_t arrow = token->find('>');
    spec.t = read_float(token->substr(0, arrow));
    if (arrow != std::string::npos) {
        spec.t_end = read_float(token->substr(arrow + 1));
        spec.scheduled = true;
    }
}

// "w,w" or "w,w>w,w": start weights, and end weights that start a schedule.
void read_list_arg(const std::optional<std::string>& token, MethodSpec& spec) {
    if (!token) {
        return;
    }
    const size_t arrow = token->find('>');
    spec.weights = parse_float_list(token->substr(0, arrow));
    if (arrow != std::string::npos) {
        spec.weights_end = parse_float_list(token->substr(arrow + 1));
        spec.scheduled = true;
    }
}

}  // namespace

std::vector<float> parse_float_list(const std::string& text) {
    std::vector<float> values;
    std::string item;
    for (const char c : text + ",") {
        if (c != ',') {
            item += c;
            continue;
        }
        if (!item.empty()) {
            values.push_back(read_float(item));
        }
        item.clear();
    }
    return values;
}

MethodSpec parse_method(const std::vector<std::string>& tokens, size_t position,
                        const std::string& text) {
    if (position >= tokens.size()) {
        throw std::invalid_argument("missing method in: " + text);
    }
    MethodSpec spec;
    spec.text = text;

    if (!find_method(tokens[position], spec.method)) {
        throw std::invalid_argument("unknown method '" + tokens[position] + "' in: " + text);
    }
    const MethodInfo& info = method_info(spec.method);
    const auto first = optional_token(tokens, position + 1);
    switch (info.first) {
        case FirstPlace::none:
            break;
        case FirstPlace::scalar:
            read_scalar_arg(first, info.t_default, spec);
            break;
        case FirstPlace::weights:
            read_list_arg(first, spec);
            break;
        case FirstPlace::index:
            spec.pick = first ? read_int(*first) : 0;
            break;
    }
    if (info.weights_second) {
        read_list_arg(optional_token(tokens, position + 2), spec);
    }
    return spec;
}

}  // namespace tevrin
