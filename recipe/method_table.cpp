#include "recipe/method_table.h"

#include <cassert>
#include <iterator>
#include <limits>
#include <string>

namespace tevrin {
namespace {

constexpr float kNoLimit = std::numeric_limits<float>::infinity();

// In enum order. Columns: word, first place, t default, weights second, weight
// fill, clamped, t min, t max, needs two sources.
constexpr MethodInfo kMethods[] = {
    {"linear", FirstPlace::weights, 0.5f, false, 0.0f, false, 0.0f, 0.0f, false},
    {"slerp", FirstPlace::scalar, 0.5f, false, 1.0f, false, 0.0f, 0.0f, true},
    {"ties", FirstPlace::scalar, 0.5f, true, 1.0f, true, 0.01f, 1.0f, false},
    {"dare", FirstPlace::scalar, 0.5f, true, 1.0f, true, 0.0f, 0.99f, false},
    {"pick", FirstPlace::index, 0.5f, false, 1.0f, false, 0.0f, 0.0f, false},
    {"chaos", FirstPlace::scalar, 0.5f, false, 1.0f, true, 0.01f, 1.0f, false},
    {"task", FirstPlace::scalar, 1.0f, true, 1.0f, false, 0.0f, 0.0f, false},
    {"breadcrumbs", FirstPlace::scalar, 0.8f, true, 1.0f, true, 0.01f, 1.0f, false},
    {"della", FirstPlace::scalar, 0.4f, true, 1.0f, true, 0.0f, 0.95f, false},
    {"median", FirstPlace::none, 0.5f, false, 1.0f, false, 0.0f, 0.0f, false},
    {"nearswap", FirstPlace::scalar, 0.001f, false, 1.0f, true, 1e-9f, kNoLimit, true},
    {"model_stock", FirstPlace::none, 0.5f, false, 1.0f, false, 0.0f, 0.0f, false},
    {"sce", FirstPlace::scalar, 1.0f, false, 1.0f, true, 0.01f, 1.0f, false},
    {"karcher", FirstPlace::scalar, 10.0f, true, 0.0f, true, 0.0f, 1000.0f, false},
    {"multislerp", FirstPlace::scalar, 0.0f, true, 0.0f, true, 0.0f, 1.0f, false},
    {"nuslerp", FirstPlace::weights, 0.5f, false, 1.0f, false, 0.0f, 0.0f, false},
};

static_assert(std::size(kMethods) == size_t(kMethodCount),
              "one table row per BlendMethod, in enum order");

}  // namespace

const MethodInfo& method_info(BlendMethod method) {
    const auto index = size_t(method);
    assert(index < std::size(kMethods) && "method outside the table");
    return kMethods[index];
}

const char* method_word(BlendMethod method) {
    return method_info(method).word;
}

bool find_method(const std::string& word, BlendMethod& method) {
    for (size_t i = 0; i < std::size(kMethods); ++i) {
        if (word == kMethods[i].word) {
            method = BlendMethod(i);
            return true;
        }
    }
    return false;
}

bool method_is_weighted(BlendMethod method) {
    const MethodInfo& info = method_info(method);
    return info.first == FirstPlace::weights || info.weights_second;
}

float method_t(const MethodSpec& spec) {
    const MethodInfo& info = method_info(spec.method);
    if (!info.clamped) {
        return spec.t;
    }
    return !(spec.t >= info.t_min) ? info.t_min : spec.t > info.t_max ? info.t_max : spec.t;
}

}  // namespace tevrin
