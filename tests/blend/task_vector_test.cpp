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
using testing::Rows;
using testing::zeros;

// One donor over base 0 by a direct reference: the cuts are order statistics of
// the magnitudes by std::nth_element, and the band [low cut, high cut) stays.
std::vector<float> reference_band(const std::vector<float>& donor, int64_t low, int64_t high) {
    std::vector<float> mags(donor.size());
    std::transform(donor.begin(), donor.end(), mags.begin(), [](float d) { return std::fabs(d); });
    const auto cut = [&](int64_t p) {
        std::vector<float> copy = mags;
        std::nth_element(copy.begin(), copy.begin() + p, copy.end());
        return p < static_cast<int64_t>(copy.size()) ? copy[static_cast<size_t>(p)] : INFINITY;
    };
    const float low_cut = cut(low);
    const float high_cut = cut(high);
    std::vector<float> out = zeros(donor.size());
    for (size_t e = 0; e < donor.size(); ++e) {
        out[e] = mags[e] >= low_cut && mags[e] < high_cut ? donor[e] : 0.0f;
    }
    return out;
}

TEST(TrimmingMethods, CutsMatchAReferenceSelection) {
    // Magnitudes over many exponents with runs of repeats; short rows (no top band
    // for breadcrumbs) with magnitudes tied at the cut; a row of one magnitude.
    std::vector<float> wide = testing::fixture_values(77, 3000);
    for (size_t e = 0; e < wide.size(); ++e) {
        wide[e] = e % 5 == 0 ? 0.125f : std::ldexp(wide[e], static_cast<int>(e % 40) - 20);
    }
    const Rows donors = {wide,
                         {3, -3, 1, 3, 2, 0, 0, 0, 0, 0},
                         {1, -2, 3, 0.5f, -7, 4, 6, -5, 2, 1},
                         std::vector<float>(100, -2.0f)};
    for (const auto& donor : donors) {
        const auto len = static_cast<int64_t>(donor.size());
        const int64_t top = len / 100;
        for (float t : {0.05f, 0.2f, 0.33f, 0.999f, 1.0f}) {
            const auto keep = std::max<int64_t>(1, std::floor(static_cast<float>(len) * t));
            const Rows sources = {zeros(donor.size()), donor};
            EXPECT_EQ(blend(method(BlendMethod::ties, t), sources),
                      reference_band(donor, std::max<int64_t>(0, len - keep), len))
                << len << " " << t;
            EXPECT_EQ(blend(method(BlendMethod::breadcrumbs, t), sources),
                      reference_band(donor, std::max<int64_t>(0, len - top - keep), len - top))
                << len << " " << t;
        }
    }
}

TEST(Ties, ElectsASignAndAveragesTheAgreeingDonors) {
    const struct {
        std::vector<float> deltas;  // from the base 10
        std::vector<float> weights;
        float expected;
    } cases[] = {
        {{2, -2}, {}, 8},                // sum exactly 0 elects negative
        {{1, -2}, {0, 2, 1}, 8},         // weighted sum 0, still negative
        {{1, 3, -2}, {0, 1, 3}, 12.5f},  // base + (1 + 9) / 4
        {{0, -2}, {}, 8},                // a zero difference takes no part
        {{4, -1}, {0, 0, 0}, 10},        // all weights 0: the base
        {{1, 3}, {0, -2, 1}, 10},        // agreeing weights sum below 0: the base
    };
    for (const auto& c : cases) {
        Rows sources = {{10}};
        for (float d : c.deltas) {
            sources.push_back({10 + d});
        }
        EXPECT_EQ(blend(method(BlendMethod::ties, 1.0f, c.weights), sources)[0], c.expected);
    }
}

// Dare over base 0 and equal weights by a direct reference: one draw per element
// of each donor in turn, the engine running on from one donor to the next.
std::vector<float> reference_dare(const Rows& donors, float drop_rate) {
    RowEngine engine(dare_engine_seed(9, 0));
    std::vector<float> out = zeros(donors[0].size());
    const float f = (1.0f / static_cast<float>(donors.size())) * (1.0f / (1.0f - drop_rate));
    for (const auto& donor : donors) {
        for (size_t e = 0; e < donor.size(); ++e) {
            out[e] = uniform_draw(engine) >= drop_rate ? donor[e] * f + out[e] : out[e];
        }
    }
    return out;
}

TEST(Dare, DropsByTheRowEngineAndRescales) {
    const std::vector<float> row = testing::fixture_values(3, 1000);
    for (float t : {0.0f, 0.5f, 0.99f}) {
        // Identical donors still get different drop patterns.
        EXPECT_EQ(blend(method(BlendMethod::dare, t), {zeros(1000), row, row}, 0, 9),
                  reference_dare({row, row}, t))
            << t;
    }
    // A weight sum not above 0 is replaced by 1, so each share is the weight itself.
    EXPECT_EQ(blend(method(BlendMethod::dare, 0.0f, {7, -3, 1}), {{0, 0}, {1, 2}, {4, 8}}),
              (std::vector<float>{1, 2}));
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
    std::vector<float> out = zeros(donor.size());
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
    const std::vector<float> long_row = testing::fixture_values(5, 3000);  // ranked by radix sort
    const struct {
        std::vector<float> donor;
        float t, spread;
    } cases[] = {
        {scrambled, 0.0f, 0.0f},
        {scrambled, 0.1f, 0.1f},
        {scrambled, 0.9f, 0.95f - 0.9f},
        {long_row, 0.5f, 0.15f},
        {long_row, 0.95f, 0.0f},
        {{4}, 0.5f, 0.15f},                              // p is the drop rate
        {std::vector<float>(40, 1.5f), 0.5f, 0.15f},     // equal magnitudes, ...
        {std::vector<float>(1000, -2.0f), 0.3f, 0.15f},  // ... also on the radix path
    };
    for (const auto& c : cases) {
        const auto out =
            blend(method(BlendMethod::della, c.t), {zeros(c.donor.size()), c.donor}, 0, 21);
        EXPECT_EQ(out, reference_della(c.donor, c.t, c.spread)) << c.t;
    }
}

// Out-of-range t acts as the nearest end, and NaN (a recipe may say "nan") as the
// low end.
TEST(ClampsOfT, ActAsTheEndOfTheRange) {
    const Rows sources = {testing::fixture_values(60, 40 * 256),
                          testing::fixture_values(61, 40 * 256),
                          testing::fixture_values(62, 40 * 256)};
    const float nan = std::nanf("");
    const struct {
        BlendMethod kind;
        float t, same_as;
    } cases[] = {
        {BlendMethod::ties, nan, 0.01f},        {BlendMethod::ties, 0.001f, 0.01f},
        {BlendMethod::breadcrumbs, nan, 0.01f}, {BlendMethod::dare, nan, 0.0f},
        {BlendMethod::dare, 5.0f, 0.99f},       {BlendMethod::della, nan, 0.0f},
        {BlendMethod::della, 7.0f, 0.95f},      {BlendMethod::chaos, nan, 0.01f},
        {BlendMethod::chaos, -1.0f, 0.01f},     {BlendMethod::chaos, 3.0f, 1.0f},
        {BlendMethod::nearswap, nan, 0.0f},
    };
    for (const auto& c : cases) {
        const auto out = blend(method(c.kind, c.t, {1, 0.7f, 1.4f}), sources, 256);
        EXPECT_EQ(out, blend(method(c.kind, c.same_as, {1, 0.7f, 1.4f}), sources, 256))
            << method_word(c.kind) << " " << c.t;
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); }));
    }
}

}  // namespace
}  // namespace tevrin
