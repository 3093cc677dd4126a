#include <cctype>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "recipe/method_table.h"
#include "recipe/recipe.h"

namespace tevrin {
namespace {

using Warnings = std::vector<std::string>*;

std::optional<std::string> optional_token(const std::vector<std::string>& tokens, size_t index) {
    if (index < tokens.size()) {
        return tokens[index];
    }
    return std::nullopt;
}

std::string number_text(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

float lenient_float(const std::string& text, Warnings warnings) {
    std::string rest;
    const float value = read_float(text, rest);
    if (warnings != nullptr && !rest.empty()) {
        warnings->push_back("'" + text + "' is read as " + number_text(value) +
                            ": the text behind the number is ignored");
    }
    return value;
}

std::vector<float> float_list(const std::string& text, Warnings warnings) {
    std::vector<float> values;
    std::string item;
    for (const char c : text + ",") {
        if (c != ',') {
            item += c;
            continue;
        }
        if (!item.empty()) {
            values.push_back(lenient_float(item, warnings));
        }
        item.clear();
    }
    return values;
}

// The parts between the '>' of a schedule: "a" gives one, "a>b" two, "a>b>c" three.
std::vector<std::string> schedule_points(const std::string& token) {
    std::vector<std::string> points;
    size_t start = 0;
    for (size_t arrow = token.find('>'); arrow != std::string::npos;
         arrow = token.find('>', start)) {
        points.push_back(token.substr(start, arrow - start));
        start = arrow + 1;
    }
    points.push_back(token.substr(start));
    return points;
}

// "a", "a>b" or "a>b>c...": the first point goes to t, the last, when there are two
// or more, to t_end and starts a schedule; the points between go to t_inner.
void read_scalar_arg(const std::optional<std::string>& token, float fallback, MethodSpec& spec,
                     Warnings warnings) {
    if (!token) {
        spec.t = fallback;
        return;
    }
    const std::vector<std::string> points = schedule_points(*token);
    spec.t = lenient_float(points.front(), warnings);
    if (points.size() < 2) {
        return;
    }
    for (size_t i = 1; i + 1 < points.size(); ++i) {
        spec.t_inner.push_back(lenient_float(points[i], warnings));
    }
    spec.t_end = lenient_float(points.back(), warnings);
    spec.scheduled = true;
}

// "w,w", "w,w>w,w" or more points: start weights, end weights that start a
// schedule, and the lists between.
void read_list_arg(const std::optional<std::string>& token, MethodSpec& spec, Warnings warnings) {
    if (!token) {
        return;
    }
    const std::vector<std::string> points = schedule_points(*token);
    spec.weights = float_list(points.front(), warnings);
    if (points.size() < 2) {
        return;
    }
    spec.weights_inner.clear();
    for (size_t i = 1; i + 1 < points.size(); ++i) {
        spec.weights_inner.push_back(float_list(points[i], warnings));
    }
    spec.weights_end = float_list(points.back(), warnings);
    spec.scheduled = true;
}

size_t argument_places(const MethodInfo& info) {
    return (info.first == FirstPlace::none ? 0 : 1) + (info.weights_second ? 1 : 0);
}

// Tokens no place reads, and "t=0.3"-style arguments, which read as no number.
void note_argument_slips(const std::vector<std::string>& tokens, size_t position,
                         const MethodInfo& info, Warnings warnings) {
    if (warnings == nullptr) {
        return;
    }
    const size_t places = argument_places(info);
    const size_t end = std::min(tokens.size(), position + 1 + places);
    for (size_t i = position + 1; i < end; ++i) {
        const std::string& token = tokens[i];
        if (token.find('=') != std::string::npos &&
            std::isalpha(static_cast<unsigned char>(token[0]))) {
            warnings->push_back("'" + token +
                                "': arguments are bare values in fixed places, as in '" +
                                info.word + " 0.3'");
        }
    }
    if (tokens.size() <= end) {
        return;
    }
    std::string ignored;
    for (size_t i = end; i < tokens.size(); ++i) {
        ignored += (ignored.empty() ? "" : " ") + tokens[i];
    }
    std::string message = "'" + ignored + "' is ignored: " + info.word + " takes " +
                          std::to_string(places) + (places == 1 ? " argument" : " arguments");
    if (end > position + 1 && tokens[end - 1].back() == ',') {
        message += " (a weight list has no blanks: 0.5,0.5)";
    }
    warnings->push_back(message);
}

}  // namespace

std::vector<float> parse_float_list(const std::string& text) {
    return float_list(text, nullptr);
}

MethodSpec parse_method(const std::vector<std::string>& tokens, size_t position,
                        const std::string& text, std::vector<std::string>* warnings) {
    if (position >= tokens.size()) {
        throw std::invalid_argument("missing method in: " + text);
    }
    MethodSpec spec;
    spec.text = text;

    if (!find_method(tokens[position], spec.method)) {
        throw std::invalid_argument("unknown method '" + tokens[position] + "' in: " + text);
    }
    const MethodInfo& info = method_info(spec.method);
    note_argument_slips(tokens, position, info, warnings);
    const auto first = optional_token(tokens, position + 1);
    switch (info.first) {
        case FirstPlace::none:
            break;
        case FirstPlace::scalar:
            read_scalar_arg(first, info.t_default, spec, warnings);
            break;
        case FirstPlace::weights:
            read_list_arg(first, spec, warnings);
            break;
        case FirstPlace::index:
            if (first) {
                std::string rest;
                spec.pick = read_int(*first, rest);
                if (warnings != nullptr && !rest.empty()) {
                    warnings->push_back("'" + *first + "' is read as " + std::to_string(spec.pick) +
                                        ": the text behind the number is ignored");
                }
            }
            break;
    }
    if (info.weights_second) {
        read_list_arg(optional_token(tokens, position + 2), spec, warnings);
    }
    return spec;
}

}  // namespace tevrin
