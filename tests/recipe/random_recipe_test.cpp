// Generated recipes: the two reference texts, edge cases, and properties over
// many seeds and source counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "recipe/parse_recipe.h"
#include "recipe/random_recipe.h"

namespace tevrin {
namespace {

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> layer_lines(const std::string& text) {
    std::vector<std::string> out;
    for (const std::string& line : lines_of(text)) {
        if (line.rfind("layers ", 0) == 0) {
            out.push_back(line);
        }
    }
    return out;
}

std::string method_of(const std::string& layer_line) {
    std::istringstream in(layer_line);
    std::string directive, range, method;
    in >> directive >> range >> method;
    return method;
}

TEST(RandomRecipe, ThreeSourcesSeed42) {
    EXPECT_EQ(random_recipe(3, 32, 42, "q5_k"),
              "# Tevrin random blend - seed 42\n"
              "name Tevrin Blend 42\n"
              "out q5_k\n"
              "seed 42\n"
              "default linear 0.12,0.44,0.44\n"
              "layers 0-3 ties 0.65 0.38,0.43,0.19\n"
              "layers 4-6 dare 0.15 0.34,0.46,0.20\n"
              "layers 7-12 task 0.48 0.50,0.29,0.21\n"
              "layers 13-22 ties 0.70 0.46,0.21,0.33\n"
              "layers 23-31 linear 0.31,0.40,0.29\n"
              "tensor *attn_q* slerp 0.65\n"
              "tensor token_embd* pick 0\n"
              "tensor output* pick 0\n"
              "tensor *norm* linear 0.59,0.29,0.12\n");
}

TEST(RandomRecipe, TwoSourcesSeed2026) {
    EXPECT_EQ(random_recipe(2, 40, 2026, "q4_k"),
              "# Tevrin random blend - seed 2026\n"
              "name Tevrin Blend 2026\n"
              "out q4_k\n"
              "seed 2026\n"
              "default linear 0.51,0.49\n"
              "layers 0-4 linear 0.39,0.61\n"
              "layers 5-8 della 0.38 0.41,0.59\n"
              "layers 9-19 chaos 0.08\n"
              "layers 20-31 slerp 0.68\n"
              "layers 32-34 slerp 0.61\n"
              "layers 35-39 slerp 0.30>0.72\n"
              "tensor *attn_q* slerp 0.61\n"
              "tensor token_embd* pick 0\n"
              "tensor output* pick 0\n"
              "tensor *norm* linear 0.24,0.76\n");
}

TEST(RandomRecipe, EdgeCases) {
    const std::string single =
        "# Tevrin random blend - seed 7\nname Tevrin Blend 7\nout f16\n"
        "seed 7\ndefault pick 0\n";
    EXPECT_EQ(random_recipe(1, 32, 7, "f16"), single);
    EXPECT_EQ(random_recipe(0, 32, 7, "f16"), single);
    EXPECT_EQ(random_recipe(-3, 0, 7, "f16"), single);

    for (const uint64_t seed : {0ull, 5ull, 123456789ull}) {
        EXPECT_EQ(random_recipe(3, 0, seed, "q8_0"), random_recipe(3, 16, seed, "q8_0"));
        EXPECT_EQ(random_recipe(3, -4, seed, "q8_0"), random_recipe(3, 16, seed, "q8_0"));
    }

    const auto ranges = [](int32_t layers, uint64_t seed) {
        std::vector<std::string> out;
        for (const std::string& line : layer_lines(random_recipe(2, layers, seed, "f32"))) {
            out.push_back(line.substr(7, line.find(' ', 7) - 7));
        }
        return out;
    };
    for (const uint64_t seed : {1ull, 2ull, 3ull}) {
        EXPECT_EQ(ranges(1, seed), std::vector<std::string>{"0-0"});
        EXPECT_EQ(ranges(3, seed), (std::vector<std::string>{"0-1", "2-2"}));
        EXPECT_EQ(ranges(8, seed), (std::vector<std::string>{"0-1", "2-3", "4-5", "6-7"}));
    }

    const std::vector<std::string> big = lines_of(random_recipe(2, 16, 100042, "Q8_0"));
    EXPECT_EQ(big[1], "name Tevrin Blend 42");
    EXPECT_EQ(big[2], "out Q8_0");
    EXPECT_EQ(big[3], "seed 100042");
    EXPECT_EQ(lines_of(random_recipe(2, 16, 18446744073709551615ull, "x"))[1],
              "name Tevrin Blend 51615");
}

// A band that starts in layer 0 or 1, or reaches one of the last two layers, only
// gets rows 0 to 3 (linear, slerp, ties, slerp schedule). Inner bands may get rows
// 4 to 9; row 8 depends on the source count and takes no draw.
TEST(RandomRecipe, InnerBandsGetTheWiderTable) {
    const std::vector<std::string> narrow = {"linear", "slerp", "ties"};
    const auto is_narrow = [&](const std::string& m) {
        return std::find(narrow.begin(), narrow.end(), m) != narrow.end();
    };
    bool inner_saw_wide_row = false;
    bool saw_median = false;
    bool saw_nearswap = false;
    bool saw_band_ending_at_n_minus_2 = false;
    for (const int32_t n : {8, 9, 10, 13}) {
        for (uint64_t seed = 0; seed < 200; ++seed) {
            for (const int32_t sources : {2, 3}) {
                for (const std::string& band :
                     layer_lines(random_recipe(sources, n, seed, "f16"))) {
                    const int32_t first = std::atoi(band.c_str() + 7);
                    const int32_t last = std::atoi(band.c_str() + band.find('-') + 1);
                    const std::string m = method_of(band);
                    saw_band_ending_at_n_minus_2 |= last == n - 2;
                    if (first <= 1 || last >= n - 2) {
                        EXPECT_TRUE(is_narrow(m)) << n << ": " << band;
                        continue;
                    }
                    inner_saw_wide_row |= !is_narrow(m);
                    saw_median |= m == "median";
                    saw_nearswap |= m == "nearswap";
                    if (m == "median") {
                        EXPECT_EQ(sources, 3);
                    }
                    if (m == "nearswap") {
                        EXPECT_EQ(band.substr(band.find("nearswap")), "nearswap 0.002");
                        EXPECT_EQ(sources, 2);
                    }
                }
            }
        }
    }
    EXPECT_TRUE(inner_saw_wide_row);
    EXPECT_TRUE(saw_median);
    EXPECT_TRUE(saw_nearswap);
    EXPECT_TRUE(saw_band_ending_at_n_minus_2);
}

// Every generated recipe parses, and its layer rules tile 0..n-1 in order.
TEST(RandomRecipe, GeneratedRecipesParseAndTileTheLayers) {
    const std::vector<int32_t> layer_counts = {0, 1, 2, 3, 5, 8, 9, 24, 32, 61, 80};
    for (int32_t sources = 1; sources <= 8; ++sources) {
        for (const int32_t layers : layer_counts) {
            for (uint64_t seed = 0; seed < 40; ++seed) {
                const uint64_t s = seed * 0x9E3779B97F4A7C15ull + static_cast<uint64_t>(layers);
                const std::string text = random_recipe(sources, layers, s, "Q4_K");
                SCOPED_TRACE(text);
                const Recipe r = parse_recipe(text, sources);
                EXPECT_EQ(r.seed, s);
                EXPECT_EQ(r.out.type, 12);
                if (sources == 1) {
                    EXPECT_TRUE(r.layer_rules.empty());
                    continue;
                }
                const int32_t n = layers > 0 ? layers : 16;
                int32_t next = 0;
                for (const LayerRule& rule : r.layer_rules) {
                    ASSERT_EQ(rule.first, next);
                    ASSERT_GE(rule.last, rule.first);
                    ASSERT_LE(rule.last - rule.first + 1, std::max(2, n / 3));
                    next = rule.last + 1;
                    if (rule.spec.scheduled) {
                        EXPECT_LE(rule.spec.t, rule.spec.t_end);
                    }
                    if (!rule.spec.weights.empty()) {
                        EXPECT_EQ(rule.spec.weights.size(), static_cast<size_t>(sources));
                    }
                }
                EXPECT_EQ(next, n);
                ASSERT_EQ(r.tensor_rules.size(), 4u);
                EXPECT_EQ(r.tensor_rules[3].spec.weights.size(), static_cast<size_t>(sources));
            }
        }
    }
}

}  // namespace
}  // namespace tevrin
