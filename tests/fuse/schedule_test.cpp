// Schedules of three or more points, written in a recipe and evaluated for a
// layer: hand-computed values at the range ends, at every knot (met exactly),
// between knots, outside the range and outside the blocks.
#include <gtest/gtest.h>

#include "fuse/tensor_plan.h"
#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

const LayerRule& rule_of(const std::string& text) {
    static Recipe recipe;
    recipe = parse_recipe(text, 3);
    return recipe.layer_rules.at(0);
}

TEST(Schedule, PointsAreMetAtEvenlySpacedLayers) {
    // {rule, layer, t}: -1 is a tensor outside the blocks (the midpoint).
    const struct {
        const char* rule;
        int32_t layer;
        float t;
    } cases[] = {
        {"layers 10-20 slerp 0.2>0.8>0.4", 10, 0.2f},   // first end
        {"layers 10-20 slerp 0.2>0.8>0.4", 15, 0.8f},   // knot
        {"layers 10-20 slerp 0.2>0.8>0.4", 20, 0.4f},   // last end
        {"layers 10-20 slerp 0.2>0.8>0.4", 12, 0.44f},  // 0.2 + 0.6 * 2/5
        {"layers 10-20 slerp 0.2>0.8>0.4", 18, 0.56f},  // 0.8 - 0.4 * 3/5
        {"layers 10-20 slerp 0.2>0.8>0.4", 30, 0.4f},   // beyond: the end holds
        {"layers 10-20 slerp 0.2>0.8>0.4", -1, 0.8f},   // midpoint, here a knot
        {"layers 0-6 slerp 0>1>0>1", 2, 1.0f},          // knots at 0, 2, 4, 6
        {"layers 0-6 slerp 0>1>0>1", 4, 0.0f},
        {"layers 0-6 slerp 0>1>0>1", 6, 1.0f},
        {"layers 0-6 slerp 0>1>0>1", 3, 0.5f},
        {"layers 0-6 slerp 0>1>0>1", -1, 0.5f},  // midpoint between knots
        {"layers 0-2 slerp 0.1>0.7>0.3", 1, 0.7f},
        {"layers 0-9 slerp 0.1>0.7>0.3", 3, 0.1f + 0.6f * (6.0f / 9.0f)},
        {"layers 4 slerp 0.1>0.7>0.3", 4, 0.7f},  // one layer: the midpoint
        {"layers 0-3 slerp 0.3>0.9", 1, 0.5f},    // two points as before
    };
    for (const auto& c : cases) {
        const LayerRule& rule = rule_of(c.rule);
        const float t = resolve_spec(rule.spec, c.layer, rule.first, rule.last).t;
        EXPECT_FLOAT_EQ(t, c.t) << c.rule << " at " << c.layer;
    }
    // Knots and ends are exact, not merely close.
    const LayerRule& rule = rule_of("layers 0-6 slerp 0.1>0.7>0.3>0.9");
    for (const auto& [layer, t] : {std::pair{0, 0.1f}, {2, 0.7f}, {4, 0.3f}, {6, 0.9f}}) {
        EXPECT_EQ(resolve_spec(rule.spec, layer, 0, 6).t, t) << layer;
    }
}

TEST(Schedule, WeightListsRunThroughEveryPoint) {
    const LayerRule& rule = rule_of("layers 0-4 ties 0.5 1,0>0,1,1>1");
    const std::vector<std::vector<float>> expected = {
        {1, 0, 0}, {0.5f, 0.5f, 0.5f}, {0, 1, 1}, {0.5f, 0.5f, 0.5f}, {1, 0, 0}};
    for (int32_t layer = 0; layer <= 4; ++layer) {
        const MethodSpec spec = resolve_spec(rule.spec, layer, 0, 4);
        EXPECT_EQ(spec.weights, expected[size_t(layer)]) << layer;
        EXPECT_FLOAT_EQ(spec.t, 0.5f - 0.5f * float(layer) / 4.0f);  // t alone: two points
    }
}

}  // namespace
}  // namespace tevrin
