// Recipe parser on arbitrary text: the first byte picks the source count (1 to 8),
// the rest is the recipe. Any failure must be a standard exception, and an accepted
// recipe must hold only what the parser promises. Warnings are gathered on the way.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "recipe/parse_recipe.h"

namespace {

void check_accepted(const tevrin::Recipe& recipe, int32_t sources) {
    for (const auto& slice : recipe.stack) {
        if (slice.source < 0 || slice.source >= sources) {
            std::abort();
        }
    }
    const auto check_spec = [sources](const tevrin::MethodSpec& spec) {
        if (spec.method == tevrin::BlendMethod::pick && (spec.pick < 0 || spec.pick >= sources)) {
            std::abort();
        }
    };
    check_spec(recipe.default_spec);
    for (const auto& rule : recipe.layer_rules) {
        check_spec(rule.spec);
    }
    for (const auto& rule : recipe.tensor_rules) {
        check_spec(rule.spec);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const int32_t sources = 1 + data[0] % 8;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        std::vector<std::string> warnings;  // the warning path reads every line too
        check_accepted(tevrin::parse_recipe(text, sources, &warnings), sources);
    } catch (const std::exception&) {
    }
    return 0;
}
