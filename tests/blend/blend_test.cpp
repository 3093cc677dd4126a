// Every method through blend_rows: the same bytes however rows are cut into calls,
// and the older methods against plain references of their definitions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <tuple>

#include <ggml.h>

#include "blend/draws.h"
#include "recipe/method_table.h"
#include "tests/blend/kernel_call.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// The property the whole tool rests on: a tensor's rows give the same bytes
// whether they are blended in one call or cut into calls at any rows, as the
// row pipeline does across chunks and workers.
TEST(SplitCalls, EveryMethodGivesTheSameBytesHoweverRowsAreCut) {
    const int64_t rows = 100, row_len = 600;  // breadcrumbs cuts a top band, della uses radix
    Rows sources;
    for (uint64_t s = 0; s < 3; ++s) {
        sources.push_back(fixture_values(40 + s, rows * row_len));
    }
    // Repeated magnitudes exercise the equal-magnitude paths of the trimming methods.
    for (size_t i = 0; i < sources[0].size(); i += 7) {
        sources[1][i] = sources[0][i] + 0.25f, sources[2][i] = sources[0][i] - 0.25f;
    }
    const std::vector<int64_t> cuts[] = {{0, 1, 31, 32, 33, 63, 64, 97, 100}, {0, 7, 40, 41, 100}};
    for (int m = 0; m < kMethodCount; ++m) {
        const auto kind = static_cast<BlendMethod>(m);
        // karcher iterates, multislerp works on task vectors from t 0.5 on.
        const float t = kind == BlendMethod::karcher      ? 10
                        : kind == BlendMethod::multislerp ? 1
                                                          : 0.3f;
        MethodSpec spec = spec_of(kind, t, {1, 0.7f, 1.4f});
        spec.pick = 2;
        Floats whole(sources[0].size());
        run_rows(spec, 99, sources, whole, 0, rows, row_len);
        for (const auto& cut : cuts) {
            Floats pieces(sources[0].size(), -1.0f);
            for (size_t c = 0; c + 1 < cut.size(); ++c) {
                run_rows(spec, 99, sources, pieces, cut[c], cut[c + 1] - cut[c], row_len);
            }
            EXPECT_EQ(std::memcmp(whole.data(), pieces.data(), whole.size() * 4), 0) << m;
        }
    }
}

TEST(Linear, NormalisesTheWeights) {
    const Rows one_hot = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};  // writes the shares
    // A zero sum divides by 1, a negative one as it is; a short list gives 0.
    EXPECT_EQ(run(spec_of(BlendMethod::linear, 0.5f, {0, 0}), one_hot), Floats(3));
    EXPECT_EQ(run(spec_of(BlendMethod::linear, 0.5f, {1, -3}), one_hot), (Floats{-0.5f, 1.5f, 0}));
}

// Linear from F16 bytes gives the floats of decoding them first, for every
// source count and every length around the vector width, with signed zeros,
// subnormals, infinities and NaNs (several at one element) among the values.
TEST(Linear, BlendsF16BytesAsTheirDecodedFloats) {
    if (!blend_f16_rows(spec_of(BlendMethod::linear), {}, nullptr, 0, 0)) {
        GTEST_SKIP() << "no AVX2 and F16C";
    }
    const uint16_t specials[] = {0x0000, 0x8000, 0x0001, 0x83ff, 0x7c00, 0xfc00, 0x7e01, 0xfd00};
    for (size_t n = 1; n <= 8; ++n) {
        for (int64_t len = 1; len <= 41; ++len) {
            std::vector<std::vector<uint16_t>> halves(n);
            Rows floats(n);
            std::vector<const uint16_t*> at;
            for (size_t k = 0; k < n; ++k) {
                for (int64_t i = 0; i < len; ++i) {
                    const auto bits = uint16_t((i * 7919 + k * 104729) % 65536);
                    halves[k].push_back(i % 5 == 0 ? specials[(i + k) % 8] : bits);
                    floats[k].push_back(ggml_fp16_to_fp32(halves[k].back()));
                }
                at.push_back(halves[k].data());
            }
            const MethodSpec spec = spec_of(BlendMethod::linear, 0.5f, {0.3f, 1.7f, -0.4f, 1});
            Floats direct(size_t(len), -1.0f);
            ASSERT_TRUE(blend_f16_rows(spec, at, direct.data(), 1, len));
            const Floats decoded = run(spec, floats);
            EXPECT_EQ(std::memcmp(direct.data(), decoded.data(), size_t(len) * 4), 0)
                << n << " sources, " << len << " elements";
        }
    }
    EXPECT_FALSE(blend_f16_rows(spec_of(BlendMethod::slerp), {}, nullptr, 0, 0));
    const std::vector<const uint16_t*> two(2);
    EXPECT_FALSE(blend_f16_rows(spec_of(BlendMethod::linear, 0.5f, {1, NAN}), two, nullptr, 0, 0));
}

TEST(Slerp, FollowsTheArcOrFallsBackToTheLinearForm) {
    const struct {
        Rows sources;
        float t;
        Floats expected;
    } cases[] = {
        // Worked out independently; the sums must be in double and 1 - t rounded to float.
        {{{-0.07f, 1.38f, -0.13f, -1.25f}, {-0.58f, -2.12f, -0.74f, 2.93f}},
         0x1.9ad42cp-4f,
         {-0x1.0e0d38p-1f, 0x1.734da8p-1f, -0x1.7a562ap-1f, 0x1.04e2p-4f}},
        {{{2, 4}, {0, 0}}, 0.5f, {1, 2}},                     // zero row
        {{{1, 2, 3}, {-1, -2, -3}}, 0.25f, {0.5f, 1, 1.5f}},  // opposite rows
        {{{1, 2}, {2, 4}}, 2.0f, {3, 6}},                     // parallel, t beyond the end
        {{{1, 0}, {1, 0.02f}}, 0.5f, {1, 0.01f}},             // nearly parallel
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(spec_of(BlendMethod::slerp, c.t), c.sources), c.expected);
    }
}

TEST(Median, TakesTheMiddleOrTheMeanOfTheMiddleTwo) {
    Rows sources;
    for (size_t n = 1; n <= 9; ++n) {
        sources.push_back(fixture_values(n, 37));
        Floats expected(37);
        for (size_t e = 0; e < expected.size(); ++e) {
            Floats v;
            for (const auto& s : sources) {
                v.push_back(s[e]);
            }
            std::sort(v.begin(), v.end());
            expected[e] = n % 2 == 1 ? v[n / 2] : (v[n / 2] + v[n / 2 - 1]) * 0.5f;
        }
        EXPECT_EQ(run(spec_of(BlendMethod::median), sources), expected) << n;
    }
}

TEST(Chaos, DrawsOneDirichletWeightSetPerBlockOf32Rows) {
    // One-hot sources (3 of them, rows of 3) write each row's weights; the last of
    // the 4 blocks has 4 rows.
    const int64_t rows = 100;
    Rows sources(3, Floats(rows * 3, 0.0f));
    for (size_t i = 0; i < sources[0].size(); ++i) {
        sources[i % 3][i] = 1.0f;
    }
    const auto out = run(spec_of(BlendMethod::chaos, 0.25f), sources, 3, 11);
    for (int64_t r = 0; r < rows; ++r) {
        RowEngine engine(chaos_engine_seed(11, r));
        GammaDraw state = make_gamma_draw(6.3f);  // (1 - 0.25) * 8 + 0.3
        Floats g(3);
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

// One donor over base 0: the band of magnitude order statistics [low, high) stays,
// the cuts taken by std::nth_element.
Floats reference_band(const Floats& donor, size_t low, size_t high) {
    Floats mags(donor.size()), out(donor.size());
    std::transform(donor.begin(), donor.end(), mags.begin(), [](float d) { return std::fabs(d); });
    const auto cut = [&](size_t p) {
        Floats copy = mags;
        std::nth_element(copy.begin(), copy.begin() + p, copy.end());
        return p < copy.size() ? copy[p] : INFINITY;
    };
    const float low_cut = cut(low), high_cut = cut(high);
    for (size_t e = 0; e < donor.size(); ++e) {
        out[e] = mags[e] >= low_cut && mags[e] < high_cut ? donor[e] : 0.0f;
    }
    return out;
}

TEST(TrimmingMethods, CutsMatchAReferenceSelection) {
    // Magnitudes over many exponents with repeats; short rows (no top band for
    // breadcrumbs) with magnitudes tied at the cut; a row of one magnitude.
    Floats wide = fixture_values(77, 3000);
    for (size_t e = 0; e < wide.size(); ++e) {
        wide[e] = e % 5 == 0 ? 0.125f : std::ldexp(wide[e], static_cast<int>(e % 40) - 20);
    }
    const Rows donors = {wide, {3, -3, 1, 3, 2, 0, 0, 0, 0, 0}, Floats(100, -2.0f)};
    for (const auto& donor : donors) {
        const size_t len = donor.size(), top = len / 100;
        for (float t : {0.05f, 0.33f, 1.0f}) {
            const auto keep = std::max<size_t>(1, std::floor(static_cast<float>(len) * t));
            const Rows sources = {Floats(len), donor};
            EXPECT_EQ(run(spec_of(BlendMethod::ties, t), sources),
                      reference_band(donor, len - keep, len))
                << len << " " << t;
            EXPECT_EQ(run(spec_of(BlendMethod::breadcrumbs, t), sources),
                      reference_band(donor, len - top - std::min(keep, len - top), len - top))
                << len << " " << t;
        }
    }
}

TEST(Ties, ElectsASignAndAveragesTheAgreeingDonors) {
    // Deltas from the base 10, weights, expected.
    const std::tuple<Floats, Floats, float> cases[] = {
        {{2, -2}, {}, 8},                // sum exactly 0 elects negative
        {{1, -2}, {0, 2, 1}, 8},         // weighted sum 0, still negative
        {{1, 3, -2}, {0, 1, 3}, 12.5f},  // base + (1 + 9) / 4
        {{1, 3}, {0, -2, 1}, 10},        // agreeing weights sum below 0: the base
    };
    for (const auto& [deltas, weights, expected] : cases) {
        Rows sources = {{10}};
        for (float d : deltas) {
            sources.push_back({10 + d});
        }
        EXPECT_EQ(run(spec_of(BlendMethod::ties, 1.0f, weights), sources)[0], expected);
    }
}

// Dare over base 0 and equal weights: one draw per element of each donor in turn,
// the engine running on from one donor to the next.
Floats reference_dare(const Rows& donors, float drop_rate) {
    RowEngine engine(dare_engine_seed(9, 0));
    Floats out(donors[0].size());
    const float f = (1.0f / static_cast<float>(donors.size())) * (1.0f / (1.0f - drop_rate));
    for (const auto& donor : donors) {
        for (size_t e = 0; e < donor.size(); ++e) {
            out[e] = uniform_draw(engine) >= drop_rate ? donor[e] * f + out[e] : out[e];
        }
    }
    return out;
}

TEST(Dare, DropsByTheRowEngineAndRescales) {
    const Floats row = fixture_values(3, 1000);
    for (float t : {0.0f, 0.5f, 0.99f}) {  // identical donors, different drop patterns
        EXPECT_EQ(run(spec_of(BlendMethod::dare, t), {Floats(1000), row, row}, 0, 9),
                  reference_dare({row, row}, t))
            << t;
    }
}

// One-donor della over base 0: ascending magnitude, equal magnitudes by index, one
// draw per rank.
Floats reference_della(const Floats& donor, float drop_rate, float spread) {
    const auto len = static_cast<int>(donor.size());
    std::vector<int> order(donor.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int x, int y) { return std::fabs(donor[x]) < std::fabs(donor[y]); });
    RowEngine engine(della_engine_seed(21, 0));
    Floats out(donor.size());
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
    const Floats scrambled = {0.3f, -4, 1, 2.5f, -0.1f, 8, -2, 0.7f, 5, -6, 3, 0.2f, 2};
    Floats long_row = fixture_values(5, 3000);  // ranked by radix sort
    for (size_t e = 0; e < long_row.size(); e += 3) {
        long_row[e] = e % 2 == 0 ? 1.5f : -1.5f;  // equal magnitudes keep index order
    }
    // Donor, t, spread.
    const std::tuple<Floats, float, float> cases[] = {
        {scrambled, 0.0f, 0.0f}, {scrambled, 0.5f, 0.15f}, {long_row, 0.5f, 0.15f},
        {long_row, 0.95f, 0.0f}, {{4}, 0.5f, 0.15f},
    };
    for (const auto& [donor, t, spread] : cases) {  // one element: p is the drop rate
        const auto out = run(spec_of(BlendMethod::della, t), {Floats(donor.size()), donor}, 0, 21);
        EXPECT_EQ(out, reference_della(donor, t, spread)) << t;
    }
}

// Out-of-range t acts as the nearest end, and NaN (a recipe may say "nan") as the
// low end.
TEST(ClampsOfT, ActAsTheEndOfTheRange) {
    const Rows sources = {fixture_values(60, 40 * 256), fixture_values(61, 40 * 256),
                          fixture_values(62, 40 * 256)};
    const float nan = std::nanf("");
    // Method, t, and the t it acts as.
    const std::tuple<BlendMethod, float, float> cases[] = {
        {BlendMethod::ties, nan, 0.01f},        {BlendMethod::ties, 0.001f, 0.01f},
        {BlendMethod::breadcrumbs, nan, 0.01f}, {BlendMethod::dare, nan, 0.0f},
        {BlendMethod::dare, 5.0f, 0.99f},       {BlendMethod::della, nan, 0.0f},
        {BlendMethod::della, 7.0f, 0.95f},      {BlendMethod::chaos, nan, 0.01f},
        {BlendMethod::chaos, -1.0f, 0.01f},     {BlendMethod::chaos, 3.0f, 1.0f},
        {BlendMethod::nearswap, nan, 1e-9f},
    };
    for (const auto& [kind, t, same_as] : cases) {
        const auto out = run(spec_of(kind, t, {1, 0.7f, 1.4f}), sources, 256);
        EXPECT_EQ(out, run(spec_of(kind, same_as, {1, 0.7f, 1.4f}), sources, 256))
            << method_word(kind) << " " << t;
        EXPECT_EQ(method_t(spec_of(kind, same_as)), same_as);  // the end itself stays
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); }));
    }
}

}  // namespace
}  // namespace tevrin::testing
