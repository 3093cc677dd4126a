// Generated recipes: reference texts, properties over many seeds, source counts and
// layer counts, and independence from the process locale.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <set>
#include <string>
#include <utility>

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
    // With 8 layers every band length comes from draw_int(1), which still takes an output.
    EXPECT_EQ(random_recipe(3, 8, 4, "f16"),
              "# Tevrin random blend - seed 4\nname Tevrin Blend 4\nout f16\nseed 4\n"
              "default linear 0.52,0.26,0.23\n"
              "layers 0-1 slerp 0.50>0.84\n"
              "layers 2-3 ties 0.41 0.15,0.18,0.66\n"
              "layers 4-5 della 0.16 0.43,0.44,0.12\n"
              "layers 6-7 ties 0.58 0.49,0.16,0.35\n"
              "tensor *attn_q* slerp 0.67\n"
              "tensor token_embd* pick 0\ntensor output* pick 0\n"
              "tensor *norm* linear 0.36,0.33,0.31\n");
}

// Every generated recipe parses, and its bands tile 0..n-1 with 2 to max(2, n/3) layers
// each (the last may have 1). Only inner bands, which start above layer 1 and end below
// layer n - 2, get rows other than linear, slerp and ties; together they reach all ten.
TEST(RandomRecipe, GeneratedRecipesParseAndTileTheLayers) {
    using M = BlendMethod;
    std::set<M> methods;
    int32_t wide_first = INT32_MAX;  // smallest first layer of a band with a wide row
    int32_t wide_gap = INT32_MAX;    // smallest n - 1 - last of such a band
    for (int32_t sources = 0; sources <= 5; ++sources) {
        for (const int32_t layers : {-4, 0, 1, 2, 3, 5, 8, 9, 13, 32, 61}) {
            for (uint64_t i = 0; i < 60; ++i) {
                const uint64_t seed = i * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(layers);
                const std::string text = random_recipe(sources, layers, seed, "Q4_K");
                SCOPED_TRACE(text);
                const Recipe r = parse_recipe(text, std::max(sources, 1));
                EXPECT_EQ(r.name, "Tevrin Blend " + std::to_string(seed % 100000));
                EXPECT_EQ(std::make_pair(r.seed, r.out.type), std::make_pair(seed, 12));
                if (sources <= 1) {
                    EXPECT_TRUE(
                        text.ends_with("\nseed " + std::to_string(seed) + "\ndefault pick 0\n"));
                    continue;
                }
                const int32_t n = layers > 0 ? layers : 16;
                int32_t next = 0;
                for (const LayerRule& rule : r.layer_rules) {
                    const int32_t size = rule.last - rule.first + 1;
                    ASSERT_EQ(rule.first, next);
                    ASSERT_TRUE(size >= 2 ? size <= std::max(2, n / 3)
                                          : size == 1 && rule.last == n - 1);
                    next = rule.last + 1;
                    const M m = rule.spec.method;
                    methods.insert(m);
                    if (m != M::linear && m != M::slerp && m != M::ties) {
                        wide_first = std::min(wide_first, rule.first);
                        wide_gap = std::min(wide_gap, n - 1 - rule.last);
                    }
                    EXPECT_TRUE(m != M::median || sources >= 3);
                    EXPECT_TRUE(m != M::nearswap || (sources == 2 && rule.spec.t == 0.002f));
                    EXPECT_TRUE(rule.spec.weights.empty() ||
                                rule.spec.weights.size() == static_cast<size_t>(sources));
                }
                EXPECT_EQ(next, n);
            }
        }
    }
    EXPECT_EQ(methods.size(), 10u);
    EXPECT_EQ(std::make_pair(wide_first, wide_gap), std::make_pair(2, 2));
}

// Where the process locale writes a decimal comma, numbers still read and print alike.
TEST(RandomRecipe, NumbersIgnoreTheProcessLocale) {
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    const std::string generated = random_recipe(2, 40, 2026, "q4_k");
    if (!std::setlocale(LC_ALL, "de_DE.UTF-8") && !std::setlocale(LC_ALL, "fr_FR.UTF-8")) {
        GTEST_SKIP() << "no comma-decimal locale installed";
    }
    const float half = read_float("0.5");
    const std::string in_locale = random_recipe(2, 40, 2026, "q4_k");
    std::setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(half, 0.5f);
    EXPECT_EQ(in_locale, generated);
}

}  // namespace
}  // namespace tevrin
