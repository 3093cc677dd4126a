#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "blend/draws.h"
#include "blend_harness.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::blend;
using testing::method;
using testing::Rows;

TEST(Linear, NormalisesWeightsThroughDouble) {
    // One-hot sources: the blended row is the normalised weight list itself.
    const Rows one_hot = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    const float third = static_cast<float>(1.0 / 3.0);
    const std::pair<std::vector<float>, std::vector<float>> cases[] = {
        {{}, {third, third, third}},  // no weights: equal shares
        {{0, 0}, {0, 0, 0}},          // a zero sum divides by 1
        {{1, -3}, {-0.5f, 1.5f, 0}},  // a negative sum divides as it is; short list gives 0
    };
    for (const auto& [weights, expected] : cases) {
        EXPECT_EQ(blend(method(BlendMethod::linear, 0.5f, weights), one_hot), expected);
    }
}

TEST(Slerp, FollowsTheArcOrFallsBackToTheLinearForm) {
    const struct {
        Rows sources;
        float t;
        std::vector<float> expected;
    } cases[] = {
        // Worked out independently; the sums must be in double and 1 - t rounded to float.
        {{{-0.07f, 1.38f, -0.13f, -1.25f}, {-0.58f, -2.12f, -0.74f, 2.93f}},
         0x1.9ad42cp-4f,
         {-0x1.0e0d38p-1f, 0x1.734da8p-1f, -0x1.7a562ap-1f, 0x1.04e2p-4f}},
        {{{0, 0}, {2, 4}}, 0.5f, {1, 2}},                     // zero row: half the other
        {{{2, 4}, {0, 0}}, 0.5f, {1, 2}},                     //
        {{{1, 2, 3}, {-1, -2, -3}}, 0.25f, {0.5f, 1, 1.5f}},  // opposite rows
        {{{1, 2}, {2, 4}}, 2.0f, {3, 6}},                     // parallel, t beyond the end
        {{{1, 0}, {1, 0.02f}}, 0.5f, {1, 0.01f}},             // nearly parallel
        {{{1, 2}, {1, 2}, {9, 9}}, 0.5f, {1, 2}},             // itself; third source ignored
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blend(method(BlendMethod::slerp, c.t), c.sources), c.expected);
    }
}

TEST(Median, TakesTheMiddleOrTheMeanOfTheMiddleTwo) {
    Rows sources;
    for (size_t n = 1; n <= 9; ++n) {
        sources.push_back(testing::fixture_values(n, 37));
        std::vector<float> expected(37);
        for (size_t e = 0; e < expected.size(); ++e) {
            std::vector<float> v;
            for (const auto& s : sources) {
                v.push_back(s[e]);
            }
            std::sort(v.begin(), v.end());
            expected[e] = n % 2 == 1 ? v[n / 2] : (v[n / 2] + v[n / 2 - 1]) * 0.5f;
        }
        EXPECT_EQ(blend(method(BlendMethod::median), sources), expected) << n;
    }
    // Equal values keep source order, which fixes the sign of a zero median: the
    // middle of these five is source 2's -0.
    const auto zero = blend(method(BlendMethod::median), {{0.0f}, {0.0f}, {-0.0f}, {0.0f}, {1.0f}});
    EXPECT_TRUE(std::signbit(zero[0]));
}

TEST(Nearswap, MovesAtMostTauTowardB) {
    const Rows sources = {{0, 0, 0, 0, 1}, {0.0005f, 0.002f, -0.004f, 0, 1}};
    EXPECT_EQ(blend(method(BlendMethod::nearswap, 0.001f), sources),
              (std::vector<float>{0.0005f, 0.001f, -0.001f, 0, 1}));
    // t of 0 or below is held at 1e-9.
    EXPECT_EQ(blend(method(BlendMethod::nearswap, -5.0f), {{0, 0}, {1, 1e-10f}}),
              (std::vector<float>{1e-9f, 1e-10f}));
}

TEST(Chaos, DrawsOneDirichletWeightSetPerBlockOf32Rows) {
    // One-hot sources (3 of them, rows of 3) write each row's weights; the last of
    // the 4 blocks has 4 rows.
    const int64_t rows = 100;
    Rows sources(3, std::vector<float>(rows * 3, 0.0f));
    for (size_t i = 0; i < sources[0].size(); ++i) {
        sources[i % 3][i] = 1.0f;
    }
    const auto out = blend(method(BlendMethod::chaos, 0.25f), sources, 3, 11);
    for (int64_t r = 0; r < rows; ++r) {
        RowEngine engine(chaos_engine_seed(11, r));
        GammaDraw state = make_gamma_draw(6.3f);  // (1 - 0.25) * 8 + 0.3
        std::vector<float> g(3);
        float total = 0.0f;
        for (float& gk : g) {
            gk = gamma_draw(state, engine) + 1e-6f;
            total = total + gk;
        }
        for (size_t k = 0; k < 3; ++k) {
            ASSERT_EQ(out[static_cast<size_t>(r) * 3 + k], g[k] / total) << r;
        }
    }
}

}  // namespace
}  // namespace tevrin
