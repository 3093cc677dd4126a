#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "blend/draws.h"
#include "blend_harness.h"

namespace tevrin {
namespace {

using testing::blend;
using testing::method;
using Rows = std::vector<std::vector<float>>;

std::vector<float> ramp(int count, float scale = 1.0f) {
    std::vector<float> v(static_cast<size_t>(count));
    for (int e = 0; e < count; ++e) {
        v[static_cast<size_t>(e)] = static_cast<float>(e + 1) * scale;
    }
    return v;
}

std::vector<float> zeros(size_t count) {
    return std::vector<float>(count, 0.0f);
}

TEST(Task, AddsWeightedDifferencesScaledByT) {
    const Rows sources = {{1, 2}, {3, 2}, {5, -2}};
    EXPECT_EQ(blend(method(BlendMethod::task, 0.0f), sources), sources[0]);
    EXPECT_EQ(blend(method(BlendMethod::task, 1.0f), {sources[0], sources[1]}), sources[1]);
    // Weight 9 belongs to the base and is not read; source 2 gets the fill 1.0.
    EXPECT_EQ(blend(method(BlendMethod::task, 1.0f, {9, 0.5f}), sources),
              (std::vector<float>{6, -2}));
    EXPECT_EQ(blend(method(BlendMethod::task, 0.5f, {9, 0.5f}), sources),
              (std::vector<float>{3.5f, 0}));
}

// With settings that drop nothing, dare, della and breadcrumbs all give the base
// plus the share-weighted differences.
TEST(ShareMethods, KeepAllSettingsGiveBasePlusShares) {
    const Rows sources = {{1, 1, 1, 1}, {3, -1, 1, 5}, {2, 9, 0, 1}};
    const struct {
        std::vector<float> weights;
        float share1, share2;
    } cases[] = {
        {{}, 0.5f, 0.5f},          {{7, 1, 3}, 0.25f, 0.75f},
        {{7, 0, 0}, 0.0f, 0.0f},    // weight sum 0 is replaced by 1
        {{7, -1}, -1.0f, 1.0f},     // sum 0 again; source 2 gets the fill 1.0
        {{7, -3, 1}, -3.0f, 1.0f},  // negative sum is replaced by 1
    };
    const std::pair<BlendMethod, float> keep_all[] = {
        {BlendMethod::dare, 0.0f}, {BlendMethod::della, 0.0f}, {BlendMethod::breadcrumbs, 1.0f}};
    for (const auto& c : cases) {
        std::vector<float> expected(4);
        for (size_t e = 0; e < 4; ++e) {
            const float b = sources[0][e];
            expected[e] = (sources[2][e] - b) * c.share2 + ((sources[1][e] - b) * c.share1 + b);
        }
        for (const auto& [kind, t] : keep_all) {
            SCOPED_TRACE(static_cast<int>(kind));
            EXPECT_EQ(blend(method(kind, t, c.weights), sources), expected);
        }
    }
}

TEST(Ties, TrimsBelowTheThresholdAndKeepsEqualMagnitudes) {
    const std::vector<float> base = zeros(10);
    const std::vector<float> donor = {1, -2, 3, 0.5f, -7, 4, 6, -5, 2, 1};
    const std::vector<float> one_left = {0, 0, 0, 0, -7, 0, 0, 0, 0, 0};
    EXPECT_EQ(blend(method(BlendMethod::ties, 1.0f), {base, donor}), donor);
    EXPECT_EQ(blend(method(BlendMethod::ties, 7.0f, {0, 2}), {base, donor}), donor);
    EXPECT_EQ(blend(method(BlendMethod::ties, 0.05f), {base, donor}), one_left);
    // keep_count 2, but three elements share the threshold magnitude.
    const std::vector<float> tied = {3, -3, 1, 3, 2, 0, 0, 0, 0, 0};
    EXPECT_EQ(blend(method(BlendMethod::ties, 0.2f), {base, tied}),
              (std::vector<float>{3, -3, 0, 3, 0, 0, 0, 0, 0, 0}));
    // t below 0.01 acts as 0.01: keep 2 of 200.
    const Rows long_rows = {zeros(200), ramp(200)};
    const auto floor_t = blend(method(BlendMethod::ties, 0.001f), long_rows);
    EXPECT_EQ(floor_t, blend(method(BlendMethod::ties, 0.01f), long_rows));
    EXPECT_EQ(std::count(floor_t.begin(), floor_t.end(), 0.0f), 198);
}

TEST(Ties, ElectsASignAndAveragesTheAgreeingDonors) {
    const struct {
        std::vector<float> donors;  // differences from the base 10
        std::vector<float> weights;
        float expected;
    } cases[] = {
        {{2, -2}, {}, 8},         // sum exactly 0 elects negative
        {{1, -2}, {0, 2, 1}, 8},  // weighted sum 0, still negative
        {{3, -1}, {}, 13},
        {{1, 3, -2}, {}, 12},            // base + (1 + 3) / 2
        {{1, 3, -2}, {0, 1, 3}, 12.5f},  // base + (1 + 9) / 4
        {{0, 0}, {}, 10},                // nothing agrees: base + 0
        {{4, -1}, {0, 0, 0}, 10},        // all weights 0: wsum 0, the base
    };
    for (const auto& c : cases) {
        Rows sources = {{10}};
        for (float d : c.donors) {
            sources.push_back({10 + d});
        }
        EXPECT_EQ(blend(method(BlendMethod::ties, 1.0f, c.weights), sources)[0], c.expected);
    }
}

// Kept elements of a one-donor dare row over base 0 and donor 1, by the draws.
std::vector<bool> dare_kept(uint64_t seed, int64_t row, int count, float drop_rate) {
    RowEngine engine(dare_engine_seed(seed, row));
    std::vector<bool> kept;
    for (int e = 0; e < count; ++e) {
        kept.push_back(uniform_draw(engine) >= drop_rate);
    }
    return kept;
}

TEST(Dare, DropsByTheRowEngineAndRescales) {
    const int len = 2000;
    const Rows one = {zeros(len), std::vector<float>(len, 1.0f)};
    const auto half = blend(method(BlendMethod::dare, 0.5f), one, 1000, 3);
    for (int64_t row : {0, 1}) {
        const auto kept = dare_kept(3, row, 1000, 0.5f);
        for (int e = 0; e < 1000; ++e) {
            ASSERT_EQ(half[static_cast<size_t>(row * 1000 + e)], kept[e] ? 2.0f : 0.0f);
        }
    }
    // At 0.99 and above survivors are scaled by 100.0001.
    const float rescale = 1.0f / (1.0f - 0.99f);
    EXPECT_EQ(rescale, 100.0001f);
    const auto sparse = blend(method(BlendMethod::dare, 5.0f), one);
    const auto survivors = std::count(sparse.begin(), sparse.end(), rescale);
    EXPECT_EQ(survivors + std::count(sparse.begin(), sparse.end(), 0.0f), len);
    EXPECT_GT(survivors, 5);
    EXPECT_LT(survivors, 40);
}

TEST(Dare, IdenticalDonorsGetDifferentDropPatterns) {
    const int len = 500;
    const std::vector<float> donor(len, 1.0f);
    // Shares 0.5 and rescale 2: each surviving donor adds exactly 1.
    const auto out = blend(method(BlendMethod::dare, 0.5f), {zeros(len), donor, donor}, len, 9);
    const auto kept = dare_kept(9, 0, 2 * len, 0.5f);
    int ones = 0;
    for (int e = 0; e < len; ++e) {
        ASSERT_EQ(out[static_cast<size_t>(e)], static_cast<float>(kept[e] + kept[len + e]));
        ones += out[static_cast<size_t>(e)] == 1.0f;
    }
    EXPECT_GT(ones, 0);
}

TEST(Breadcrumbs, KeepsTheBandBelowTheTopPercent) {
    const struct {
        int len;
        float t;
        int first_kept, last_kept;  // 1-based values of the ramp
    } cases[] = {
        {50, 0.1f, 46, 50},       // top_count 0: the largest stay
        {100, 1.0f, 1, 99},       // top_count 1, keep all the rest
        {200, 0.1f, 179, 198},    // top_count 2, keep 20
        {250, 0.001f, 247, 248},  // density floor 0.01: keep 2 below the top 2
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.len);
        std::vector<float> donor = ramp(c.len);
        std::reverse(donor.begin(), donor.end());
        for (size_t e = 0; e < donor.size(); e += 2) {
            donor[e] = -donor[e];
        }
        const auto out = blend(method(BlendMethod::breadcrumbs, c.t), {zeros(donor.size()), donor});
        for (size_t e = 0; e < donor.size(); ++e) {
            const float v = std::fabs(donor[e]);
            const bool kept =
                v >= static_cast<float>(c.first_kept) && v <= static_cast<float>(c.last_kept);
            ASSERT_EQ(out[e], kept ? donor[e] : 0.0f) << e;
        }
    }
}

TEST(Breadcrumbs, EqualMagnitudesSitOnBothCuts) {
    // All equal with top_count 1: low cut equals high cut, nothing is added.
    std::vector<float> flat(100, 2.0f);
    flat[3] = -2.0f;
    EXPECT_EQ(blend(method(BlendMethod::breadcrumbs, 0.5f), {zeros(100), flat}), zeros(100));
    // Elements equal to the low cut stay: keep 2 of 10, three share the cut.
    const std::vector<float> tied = {5, -5, 1, 5, 2, 0, 0, 0, 0, 0};
    EXPECT_EQ(blend(method(BlendMethod::breadcrumbs, 0.2f), {zeros(10), tied}),
              (std::vector<float>{5, -5, 0, 5, 0, 0, 0, 0, 0, 0}));
}

// One-donor della over base 0 by a direct reference: ascending magnitude, equal
// magnitudes by index, one draw per rank.
std::vector<float> reference_della(const std::vector<float>& donor, float drop_rate, float spread,
                                   uint64_t seed) {
    const auto len = static_cast<int>(donor.size());
    std::vector<int> order(donor.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int x, int y) { return std::fabs(donor[x]) < std::fabs(donor[y]); });
    RowEngine engine(della_engine_seed(seed, 0));
    std::vector<float> out(donor.size(), 0.0f);
    for (int i = 0; i < len; ++i) {
        const float f = len == 1 ? 0.0f : static_cast<float>(i) / static_cast<float>(len - 1);
        const float p = drop_rate + (len == 1 ? 0.0f : 1.0f - (f + f)) * spread;
        if (uniform_draw(engine) >= p) {
            out[order[i]] = donor[order[i]] / (1.0f - p);
        }
    }
    return out;
}

TEST(Della, DropsByRankWithFallingProbability) {
    const std::vector<float> scrambled = {0.3f, -4, 1, 2.5f, -0.1f, 8, -2, 0.7f, 5, -6, 3, 0.2f};
    const std::vector<float> equal(40, 1.5f);
    const std::vector<float> single = {4};
    // Long rows take the radix path: many repeated magnitudes of both signs, and
    // all-equal magnitudes where every digit falls into one bucket.
    std::vector<float> long_row(3000);
    for (size_t e = 0; e < long_row.size(); ++e) {
        long_row[e] = static_cast<float>(static_cast<int>(e * 7919 % 1000) - 500) * 0.01f;
    }
    const std::vector<float> long_equal(1000, -2.0f);
    const struct {
        const std::vector<float>* donor;
        float t, drop_rate, spread;
    } cases[] = {
        {&scrambled, 0.5f, 0.5f, 0.15f},
        {&scrambled, 0.1f, 0.1f, 0.1f},
        {&scrambled, 0.9f, 0.9f, 0.95f - 0.9f},
        {&equal, 0.5f, 0.5f, 0.15f},   // ties ranked by index
        {&single, 0.5f, 0.5f, 0.15f},  // one element: p is the drop rate
        {&long_row, 0.5f, 0.5f, 0.15f},
        {&long_equal, 0.3f, 0.3f, 0.15f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.t);
        const auto out =
            blend(method(BlendMethod::della, c.t), {zeros(c.donor->size()), *c.donor}, 0, 21);
        EXPECT_EQ(out, reference_della(*c.donor, c.drop_rate, c.spread, 21));
    }
}

TEST(Della, AtTheTopDropRateSurvivorsScaleByTwenty) {
    const std::vector<float> donor(2000, 1.0f);
    const auto out = blend(method(BlendMethod::della, 0.95f), {zeros(2000), donor});
    EXPECT_EQ(out, blend(method(BlendMethod::della, 7.0f), {zeros(2000), donor}));
    const float survivor = 1.0f / (1.0f - 0.95f);
    const auto kept = std::count(out.begin(), out.end(), survivor);
    EXPECT_EQ(kept + std::count(out.begin(), out.end(), 0.0f), 2000);
    EXPECT_GT(kept, 60);
    EXPECT_LT(kept, 140);
}

}  // namespace
}  // namespace tevrin
