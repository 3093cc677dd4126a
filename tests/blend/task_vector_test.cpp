#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "blend/draws.h"
#include "blend_harness.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::blend;
using testing::method;
using Rows = std::vector<std::vector<float>>;

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
        {{7, -1}, -1.0f, 1.0f},     // so is a sum of 0 from signed weights
        {{7, -3, 1}, -3.0f, 1.0f},  // and a negative sum
    };
    for (const auto& c : cases) {
        std::vector<float> expected(4);
        for (size_t e = 0; e < 4; ++e) {
            const float b = sources[0][e];
            expected[e] = (sources[2][e] - b) * c.share2 + ((sources[1][e] - b) * c.share1 + b);
        }
        EXPECT_EQ(blend(method(BlendMethod::dare, 0.0f, c.weights), sources), expected);
        EXPECT_EQ(blend(method(BlendMethod::della, 0.0f, c.weights), sources), expected);
        EXPECT_EQ(blend(method(BlendMethod::breadcrumbs, 1.0f, c.weights), sources), expected);
    }
}

// One donor over base 0, by a direct reference: order statistics of the
// magnitudes by std::nth_element, then the kept band [low, high).
std::vector<float> reference_band(const std::vector<float>& donor, int64_t low_pos,
                                  int64_t high_pos) {
    std::vector<float> mags(donor.size());
    std::transform(donor.begin(), donor.end(), mags.begin(), [](float d) { return std::fabs(d); });
    const auto at = [&](int64_t p) {
        std::vector<float> copy = mags;
        std::nth_element(copy.begin(), copy.begin() + p, copy.end());
        return copy[static_cast<size_t>(p)];
    };
    const float low = at(low_pos);
    const float high = high_pos < static_cast<int64_t>(donor.size()) ? at(high_pos) : INFINITY;
    std::vector<float> out(donor.size(), 0.0f);
    for (size_t e = 0; e < donor.size(); ++e) {
        out[e] = mags[e] >= low && mags[e] < high ? donor[e] : 0.0f;
    }
    return out;
}

TEST(TrimmingMethods, ThresholdsMatchAReferenceSelection) {
    // Magnitudes over many exponents with runs of repeats.
    std::vector<float> donor = testing::fixture_values(77, 3000);
    for (size_t e = 0; e < donor.size(); ++e) {
        donor[e] = e % 5 == 0 ? 0.125f : std::ldexp(donor[e], static_cast<int>(e % 40) - 20);
    }
    const auto len = static_cast<int64_t>(donor.size());
    for (float t : {0.01f, 0.1f, 0.33f, 0.8f, 0.999f}) {
        const auto keep = static_cast<int64_t>(std::floor(static_cast<float>(len) * t));
        const Rows sources = {zeros(donor.size()), donor};
        EXPECT_EQ(blend(method(BlendMethod::ties, t), sources),
                  reference_band(donor, len - keep, len));
        EXPECT_EQ(blend(method(BlendMethod::breadcrumbs, t), sources),
                  reference_band(donor, std::max<int64_t>(0, len - 30 - keep), len - 30));
    }
}

TEST(TrimmingMethods, EdgesOfTheKeptBand) {
    const std::vector<float> ramp = {1, -2, 3, 0.5f, -7, 4, 6, -5, 2, 1};
    const std::vector<float> tied = {3, -3, 1, 3, 2, 0, 0, 0, 0, 0};  // three share the cut
    std::vector<float> ramp100(100), flat100(100, 2.0f);
    std::iota(ramp100.begin(), ramp100.end(), 1.0f);
    flat100[3] = -2.0f;
    std::vector<float> all_but_top = ramp100;
    all_but_top[99] = 0.0f;
    const struct {
        BlendMethod kind;
        float t;
        std::vector<float> donor, expected;
    } cases[] = {
        {BlendMethod::ties, 1.0f, ramp, ramp},  // full density trims nothing
        {BlendMethod::ties, 0.05f, ramp, {0, 0, 0, 0, -7, 0, 0, 0, 0, 0}},  // keep_count 1
        {BlendMethod::ties, 0.2f, tied, {3, -3, 0, 3, 0, 0, 0, 0, 0, 0}},   // equal at cut stay
        {BlendMethod::breadcrumbs, 0.2f, tied, {3, -3, 0, 3, 0, 0, 0, 0, 0, 0}},
        {BlendMethod::breadcrumbs, 0.1f, ramp, {0, 0, 0, 0, -7, 0, 0, 0, 0, 0}},  // top_count 0
        {BlendMethod::breadcrumbs, 1.0f, ramp100, all_but_top},  // top_count 1 is cut
        {BlendMethod::breadcrumbs, 0.5f, flat100, zeros(100)},   // low cut == high cut
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blend(method(c.kind, c.t), {zeros(c.donor.size()), c.donor}), c.expected);
    }
    // Density below 0.01 acts as 0.01: 2 of 200 survive.
    std::vector<float> ramp200(200);
    std::iota(ramp200.begin(), ramp200.end(), 1.0f);
    const auto floor_t = blend(method(BlendMethod::ties, 0.001f), {zeros(200), ramp200});
    EXPECT_EQ(floor_t, blend(method(BlendMethod::ties, 0.01f), {zeros(200), ramp200}));
    EXPECT_EQ(std::count(floor_t.begin(), floor_t.end(), 0.0f), 198);
}

TEST(Ties, ElectsASignAndAveragesTheAgreeingDonors) {
    const struct {
        std::vector<float> deltas;  // from the base 10
        std::vector<float> weights;
        float expected;
    } cases[] = {
        {{2, -2}, {}, 8},                // sum exactly 0 elects negative
        {{1, -2}, {0, 2, 1}, 8},         // weighted sum 0, still negative
        {{3, -1}, {}, 13},               //
        {{1, 3, -2}, {}, 12},            // base + (1 + 3) / 2
        {{1, 3, -2}, {0, 1, 3}, 12.5f},  // base + (1 + 9) / 4
        {{0, 0}, {}, 10},                // nothing agrees: base + 0
        {{0, -2}, {}, 8},                // a zero difference takes no part
        {{4, -1}, {0, 0, 0}, 10},        // all weights 0: the base
        {{1, 3}, {0, -1, 1}, 10},        // agreeing weights sum to 0 ...
        {{1, 3}, {0, -2, 1}, 10},        // ... or below: the base
    };
    for (const auto& c : cases) {
        Rows sources = {{10}};
        for (float d : c.deltas) {
            sources.push_back({10 + d});
        }
        EXPECT_EQ(blend(method(BlendMethod::ties, 1.0f, c.weights), sources)[0], c.expected);
    }
}

TEST(Dare, DropsByTheRowEngineAndRescales) {
    // Two identical donors of 1 over base 0 at t 0.5: shares 0.5, rescale 2, so
    // each surviving donor adds exactly 1. The engine runs on from the first
    // donor to the second, so their patterns differ.
    const size_t len = 500;
    const std::vector<float> one(len * 2, 1.0f);
    const auto out = blend(method(BlendMethod::dare, 0.5f), {zeros(len * 2), one, one}, len, 9);
    int ones = 0;
    for (int64_t row : {0, 1}) {
        RowEngine engine(dare_engine_seed(9, row));
        std::vector<float> kept(len, 0.0f);
        for (size_t k = 0; k < 2 * len; ++k) {
            kept[k % len] += uniform_draw(engine) >= 0.5f ? 1.0f : 0.0f;
        }
        for (size_t e = 0; e < len; ++e) {
            ASSERT_EQ(out[static_cast<size_t>(row) * len + e], kept[e]);
            ones += kept[e] == 1.0f;
        }
    }
    EXPECT_GT(ones, 0);
    // At 0.99 and above survivors are scaled by 100.0001, about 1 in 100.
    const auto sparse =
        blend(method(BlendMethod::dare, 5.0f), {zeros(2000), std::vector<float>(2000, 1)});
    const auto survivors = std::count(sparse.begin(), sparse.end(), 100.0001f);
    EXPECT_EQ(survivors + std::count(sparse.begin(), sparse.end(), 0.0f), 2000);
    EXPECT_TRUE(survivors > 5 && survivors < 40) << survivors;
}

// One-donor della over base 0 by a direct reference: ascending magnitude, equal
// magnitudes by index, one draw per rank.
std::vector<float> reference_della(const std::vector<float>& donor, float drop_rate, float spread) {
    const auto len = static_cast<int>(donor.size());
    std::vector<int> order(donor.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int x, int y) { return std::fabs(donor[x]) < std::fabs(donor[y]); });
    RowEngine engine(della_engine_seed(21, 0));
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
    std::vector<float> long_row(3000);  // long rows are ranked by radix sort
    for (size_t e = 0; e < long_row.size(); ++e) {
        long_row[e] = static_cast<float>(static_cast<int>(e * 7919 % 1000) - 500) * 0.01f;
    }
    const struct {
        std::vector<float> donor;
        float t, drop_rate, spread;
    } cases[] = {
        {scrambled, 0.5f, 0.5f, 0.15f},
        {scrambled, 0.1f, 0.1f, 0.1f},
        {scrambled, 0.9f, 0.9f, 0.95f - 0.9f},
        {std::vector<float>(40, 1.5f), 0.5f, 0.5f, 0.15f},     // ties ranked by index
        {std::vector<float>(1000, -2.0f), 0.3f, 0.3f, 0.15f},  // ... also on the radix path
        {{4}, 0.5f, 0.5f, 0.15f},                              // one element: p is the rate
        {long_row, 0.5f, 0.5f, 0.15f},
    };
    for (const auto& c : cases) {
        const auto out =
            blend(method(BlendMethod::della, c.t), {zeros(c.donor.size()), c.donor}, 0, 21);
        EXPECT_EQ(out, reference_della(c.donor, c.drop_rate, c.spread)) << c.t;
    }
    // From 0.95 up every element is dropped with p 0.95 and survivors scale by 20.
    const std::vector<float> one(2000, 1.0f);
    const auto top = blend(method(BlendMethod::della, 0.95f), {zeros(2000), one});
    EXPECT_EQ(top, blend(method(BlendMethod::della, 7.0f), {zeros(2000), one}));
    const auto kept = std::count(top.begin(), top.end(), 1.0f / (1.0f - 0.95f));
    EXPECT_EQ(kept + std::count(top.begin(), top.end(), 0.0f), 2000);
    EXPECT_TRUE(kept > 60 && kept < 140) << kept;
}

}  // namespace
}  // namespace tevrin
