#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

#include "blend/draws.h"
#include "blend_harness.h"

namespace tevrin {
namespace {

using testing::blend;
using testing::method;
using Rows = std::vector<std::vector<float>>;

// Three one-hot rows: the blended row of a weighted sum is the weight list itself.
const Rows kOneHot = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

TEST(FitWeights, PadsWithFillAndDropsExtras) {
    EXPECT_EQ(fit_weights({2, 3}, 4, 9), (std::vector<float>{2, 3, 9, 9}));
    EXPECT_EQ(fit_weights({2, 3, 4}, 2, 9), (std::vector<float>{2, 3}));
    EXPECT_TRUE(fit_weights({1}, 0, 9).empty());
}

TEST(Linear, NormalisesWeightsThroughDouble) {
    const float third = static_cast<float>(1.0 / 3.0);
    const struct {
        std::vector<float> weights;
        std::vector<float> expected;
    } cases[] = {
        {{}, {third, third, third}},  // no weights: equal shares
        {{0, 0}, {0, 0, 0}},          // zero sum stays zero
        {{1, -1}, {1, -1, 0}},        // zero sum with signs: weights pass unchanged
        {{2, 1, 1}, {0.5f, 0.25f, 0.25f}},
        {{1}, {1, 0, 0}},                       // sources behind a short list get nothing
        {{1, 1, 1, 5}, {third, third, third}},  // extra weights are ignored
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blend(method(BlendMethod::linear, 0.5f, c.weights), kOneHot), c.expected);
    }
}

TEST(Slerp, FollowsTheArcBetweenOrthogonalRows) {
    const Rows ab = {{1, 0}, {0, 1}};
    const auto mid = blend(method(BlendMethod::slerp, 0.5f), ab);
    EXPECT_FLOAT_EQ(mid[0], std::sqrt(0.5f));
    EXPECT_FLOAT_EQ(mid[1], std::sqrt(0.5f));
    const auto third = blend(method(BlendMethod::slerp, 0.3f), ab);
    EXPECT_FLOAT_EQ(third[0], std::cos(0.15f * static_cast<float>(M_PI)));
    EXPECT_FLOAT_EQ(third[1], std::sin(0.15f * static_cast<float>(M_PI)));
    const Rows skew = {{1, 2, 3}, {-2, 0.5f, 1}};
    for (float t : {0.0f, 1.0f}) {
        const auto end = blend(method(BlendMethod::slerp, t), skew);
        for (size_t e = 0; e < 3; ++e) {
            EXPECT_NEAR(end[e], skew[t == 0.0f ? 0 : 1][e], 1e-6f);
        }
    }
}

TEST(Slerp, FallsBackToLinearWhenTheArcIsDegenerate) {
    const struct {
        Rows sources;
        float t;
        std::vector<float> expected;
    } cases[] = {
        {{{0, 0}, {2, 4}}, 0.5f, {1, 2}},  // zero row: half the other
        {{{2, 4}, {0, 0}}, 0.5f, {1, 2}},
        {{{1, 2, 3}, {-1, -2, -3}}, 0.25f, {0.5f, 1, 1.5f}},  // opposite rows
        {{{1, 2}, {2, 4}}, 2.0f, {3, 6}},                     // parallel rows, t beyond the end
        {{{1, 2}, {1, 2}}, 0.5f, {1, 2}},                     // a row with itself comes back
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blend(method(BlendMethod::slerp, c.t), c.sources), c.expected);
    }
}

TEST(Slerp, WorksRowByRowAndIgnoresAThirdSource) {
    // Row 0 is orthogonal, row 1 parallel: each row picks its own form.
    const Rows two = {{1, 0, 1, 1}, {0, 1, 2, 2}};
    Rows three = two;
    three.push_back({9, 9, 9, 9});
    const auto out = blend(method(BlendMethod::slerp, 0.5f), two, 2);
    EXPECT_FLOAT_EQ(out[0], std::sqrt(0.5f));
    EXPECT_EQ(out[2], 1.5f);
    EXPECT_EQ(blend(method(BlendMethod::slerp, 0.5f), three, 2), out);
}

TEST(Pick, CopiesBitsOfTheChosenSource) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Rows sources = {{1, 2}, {-0.0f, nan}};
    MethodSpec spec = method(BlendMethod::pick);
    spec.pick = 1;
    const auto out = blend(spec, sources);
    EXPECT_EQ(std::bit_cast<uint32_t>(out[0]), std::bit_cast<uint32_t>(-0.0f));
    EXPECT_TRUE(std::isnan(out[1]));
    spec.pick = 5;  // outside the list: the base
    EXPECT_EQ(blend(spec, sources), sources[0]);
}

TEST(Median, TakesTheMiddleOrTheMeanOfTheMiddleTwo) {
    const struct {
        Rows sources;
        float expected;
    } cases[] = {
        {{{1}, {4}}, 2.5f},
        {{{5}, {-1}, {3}}, 3.0f},
        {{{8}, {1}, {2}, {4}}, 3.0f},
        {{{2}, {7}, {2}, {-3}, {7}}, 2.0f},
        {{{6}}, 6.0f},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blend(method(BlendMethod::median), c.sources)[0], c.expected);
    }
}

TEST(Nearswap, MovesAtMostTauTowardB) {
    const Rows sources = {{0, 0, 0, 0, 1}, {0.0005f, 0.002f, -0.004f, 0, 1}};
    EXPECT_EQ(blend(method(BlendMethod::nearswap, 0.001f), sources),
              (std::vector<float>{0.0005f, 0.001f, -0.001f, 0, 1}));
    // t at or below 0 uses the 1e-9 limit.
    const Rows far = {{0, 0}, {1, 1e-10f}};
    for (float t : {0.0f, -5.0f}) {
        EXPECT_EQ(blend(method(BlendMethod::nearswap, t), far),
                  (std::vector<float>{1e-9f, 1e-10f}));
    }
}

// Chaos on one-hot rows (3 sources, row_len 3) writes each row's weights.
std::vector<float> chaos_rows(float t, int64_t rows, uint64_t seed = 11) {
    Rows sources(3, std::vector<float>(static_cast<size_t>(rows) * 3, 0.0f));
    for (int64_t r = 0; r < rows; ++r) {
        for (size_t k = 0; k < 3; ++k) {
            sources[k][static_cast<size_t>(r) * 3 + k] = 1.0f;
        }
    }
    return blend(method(BlendMethod::chaos, t), sources, 3, seed);
}

std::vector<float> reference_chaos_weights(uint64_t seed, int64_t row, float alpha) {
    RowEngine engine(chaos_engine_seed(seed, row));
    GammaDraw state = make_gamma_draw(alpha);
    std::vector<float> g(3);
    float total = 0.0f;
    for (float& gk : g) {
        gk = gamma_draw(state, engine) + 1e-6f;
        total = total + gk;
    }
    for (float& gk : g) {
        gk = gk / total;
    }
    return g;
}

TEST(Chaos, DrawsOneDirichletWeightSetPerBlockOf32Rows) {
    const auto out = chaos_rows(0.5f, 100);
    for (int64_t r = 0; r < 100; ++r) {
        SCOPED_TRACE(r);
        const std::vector<float> row(out.begin() + r * 3, out.begin() + r * 3 + 3);
        EXPECT_EQ(row, reference_chaos_weights(11, r, 4.3f));
        EXPECT_GT(row[0], 0.0f);
        EXPECT_GT(row[1], 0.0f);
        EXPECT_GT(row[2], 0.0f);
        EXPECT_NEAR(row[0] + row[1] + row[2], 1.0f, 1e-6f);
    }
    // Four sets: blocks 0..3, the last of 4 rows.
    for (int64_t block : {0, 1, 2}) {
        EXPECT_NE(out[static_cast<size_t>(block) * 96], out[static_cast<size_t>(block + 1) * 96]);
    }
}

TEST(Chaos, ClampsTAndSharpensWeightsAsTGrows) {
    EXPECT_EQ(chaos_rows(3.0f, 64), chaos_rows(1.0f, 64));
    EXPECT_EQ(chaos_rows(-1.0f, 64), chaos_rows(0.01f, 64));
    // Mean of the largest weight over many blocks: near one-takes-all at t 1,
    // near equal at t 0.01.
    const auto largest = [](float t) {
        const auto out = chaos_rows(t, 32 * 200);
        double sum = 0.0;
        for (size_t r = 0; r < out.size() / 3; r += 32) {
            sum += std::max({out[r * 3], out[r * 3 + 1], out[r * 3 + 2]});
        }
        return sum / 200.0;
    };
    EXPECT_GT(largest(1.0f), 0.75);
    EXPECT_LT(largest(0.01f), 0.5);
}

}  // namespace
}  // namespace tevrin
