// Generated recipes: reference texts, and properties over many seeds, source counts
// and layer counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>

#include "recipe/parse_recipe.h"
#include "recipe/random_recipe.h"

namespace tevrin {
namespace {

TEST(RandomRecipe, ReferenceTexts) {
    EXPECT_EQ(random_recipe(3, 32, 42, "q5_k"),
              "# Tevrin random blend - seed 42\nname Tevrin Blend 42\nout q5_k\nseed 42\n"
              "default linear 0.12,0.44,0.44\n"
              "layers 0-3 ties 0.65 0.38,0.43,0.19\n"
              "layers 4-6 dare 0.15 0.34,0.46,0.20\n"
              "layers 7-12 task 0.48 0.50,0.29,0.21\n"
              "layers 13-22 ties 0.70 0.46,0.21,0.33\n"
              "layers 23-31 linear 0.31,0.40,0.29\n"
              "tensor *attn_q* slerp 0.65\n"
              "tensor token_embd* pick 0\ntensor output* pick 0\n"
              "tensor *norm* linear 0.59,0.29,0.12\n");
    EXPECT_EQ(random_recipe(2, 40, 2026, "q4_k"),
              "# Tevrin random blend - seed 2026\nname Tevrin Blend 2026\nout q4_k\nseed 2026\n"
              "default linear 0.51,0.49\n"
              "layers 0-4 linear 0.39,0.61\n"
              "layers 5-8 della 0.38 0.41,0.59\n"
              "layers 9-19 chaos 0.08\n"
              "layers 20-31 slerp 0.68\n"
              "layers 32-34 slerp 0.61\n"
              "layers 35-39 slerp 0.30>0.72\n"
              "tensor *attn_q* slerp 0.61\n"
              "tensor token_embd* pick 0\ntensor output* pick 0\n"
              "tensor *norm* linear 0.24,0.76\n");
}

// Every generated recipe parses; with two or more sources its bands tile 0..n-1 with 2
// to max(2, n/3) layers each (the last may have 1), rows other than linear, slerp and
// ties stay clear of the first and last two layers, and all ten methods show up.
TEST(RandomRecipe, GeneratedRecipesParseAndTileTheLayers) {
    using M = BlendMethod;
    std::set<M> methods;
    for (int32_t sources = 0; sources <= 5; ++sources) {
        for (const int32_t layers : {-4, 0, 1, 2, 3, 5, 8, 9, 13, 32, 61}) {
            for (uint64_t i = 0; i < 60; ++i) {
                const uint64_t seed = i * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(layers);
                const std::string text = random_recipe(sources, layers, seed, "Q4_K");
                SCOPED_TRACE(text);
                const Recipe r = parse_recipe(text, std::max(sources, 1));
                EXPECT_EQ(std::make_tuple(r.name, r.seed, r.out.type, r.default_spec.method),
                          std::make_tuple("Tevrin Blend " + std::to_string(seed % 100000), seed, 12,
                                          sources <= 1 ? M::pick : M::linear));
                const int32_t n = sources <= 1 ? 0 : layers > 0 ? layers : 16;
                int32_t next = 0;
                for (const LayerRule& rule : r.layer_rules) {
                    const int32_t size = rule.last - rule.first + 1;
                    ASSERT_EQ(rule.first, next);
                    ASSERT_TRUE(size >= 2 ? size <= std::max(2, n / 3)
                                          : size == 1 && rule.last == n - 1);
                    const M m = *methods.insert(rule.spec.method).first;
                    EXPECT_TRUE(
                        (m <= M::ties || (rule.first >= 2 && rule.last <= n - 3)) &&
                        (m != M::median || sources >= 3) &&
                        (m != M::nearswap || (sources == 2 && rule.spec.t == 0.002f)) &&
                        (rule.spec.weights.empty() || rule.spec.weights.size() == size_t(sources)));
                    next = rule.last + 1;
                }
                EXPECT_EQ(next, n);
            }
        }
    }
    EXPECT_EQ(methods.size(), 10u);
}

}  // namespace
}  // namespace tevrin
