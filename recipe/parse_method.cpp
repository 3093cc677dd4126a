#include <array>
#include <optional>
#include <stdexcept>

#include "recipe/recipe.h"

namespace tevrin {
namespace {

// What the argument places of each method hold, indexed by BlendMethod.
// linear takes its weight list in the first place, pick an integer there.
struct MethodPlaces {
    bool scalar;           // first place is a scalar read into t
    float scalar_default;  // t when the scalar is absent
    bool weights_second;   // second place is a weight list
};

constexpr std::array<MethodPlaces, 11> kMethods = {{
    {false, 0.5f, false},   // linear
    {true, 0.5f, false},    // slerp
    {true, 0.5f, true},     // ties
    {true, 0.5f, true},     // dare
    {false, 0.5f, false},   // pick
    {true, 0.5f, false},    // chaos
    {true, 1.0f, true},     // task
    {true, 0.8f, true},     // breadcrumbs
    {true, 0.4f, true},     // della
    {false, 0.5f, false},   // median
    {true, 0.001f, false},  // nearswap
}};

std::optional<std::string> token_at(const std::vector<std::string>& tokens, size_t index) {
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

    const std::string& word = tokens[position];
    size_t index = 0;
    while (index < kMethods.size() && word != method_word(static_cast<BlendMethod>(index))) {
        ++index;
    }
    if (index == kMethods.size()) {
        throw std::invalid_argument("unknown method '" + word + "' in: " + text);
    }
    spec.method = static_cast<BlendMethod>(index);
    const MethodPlaces& places = kMethods[index];

    if (places.scalar) {
        read_scalar_arg(token_at(tokens, position + 1), places.scalar_default, spec);
    }
    if (places.weights_second) {
        read_list_arg(token_at(tokens, position + 2), spec);
    }
    if (spec.method == BlendMethod::linear) {
        read_list_arg(token_at(tokens, position + 1), spec);
    }
    if (spec.method == BlendMethod::pick) {
        const auto token = token_at(tokens, position + 1);
        spec.pick = token ? read_int(*token) : 0;
    }
    return spec;
}

}  // namespace tevrin
