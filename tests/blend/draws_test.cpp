#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <vector>

#include "blend/draws.h"

namespace tevrin {
namespace {

// Golden values below were worked out with an independent implementation of
// SplitMix64, the 64-bit Mersenne Twister and the standard library's byte hash.
const std::string kName = "blk.0.attn_q.weight";
constexpr uint64_t kTensorSeed = 0x62d24394031416aeull;  // tensor_seed(42, kName)

TEST(Mix64, MatchesGoldenValues) {
    EXPECT_EQ(mix64(0), 0xe220a8397b1dcdafull);
    EXPECT_EQ(mix64(1), 0x910a2dec89025cc1ull);
}

TEST(TensorSeed, HashesTheNameLikeTheStandardStringHash) {
    EXPECT_EQ(tensor_seed(42, kName), kTensorSeed);
    EXPECT_EQ(tensor_seed(42, kName), mix64(42 ^ mix64(std::hash<std::string>{}(kName))));
    EXPECT_EQ(tensor_seed(0, ""), mix64(mix64(0x553e93901e462a6eull)));
    EXPECT_NE(tensor_seed(42, "blk.0.attn_k.weight"), kTensorSeed);
    EXPECT_NE(tensor_seed(43, kName), kTensorSeed);
}

TEST(EngineSeeds, MatchGoldenValues) {
    EXPECT_EQ(dare_engine_seed(kTensorSeed, 7), 0xf769ff2f479dd4efull);
    EXPECT_EQ(della_engine_seed(kTensorSeed, 7), 0x15a78ef68ff4d3e2ull);
    EXPECT_EQ(chaos_engine_seed(kTensorSeed, 70), 0x1fd7708299a5059eull);
    // Every row of a block of 32 shares the chaos engine.
    EXPECT_EQ(chaos_engine_seed(kTensorSeed, 64), chaos_engine_seed(kTensorSeed, 95));
    EXPECT_NE(chaos_engine_seed(kTensorSeed, 63), chaos_engine_seed(kTensorSeed, 64));
}

TEST(RowEngine, IsThePublishedMersenneTwister) {
    RowEngine standard;
    standard.discard(9999);
    EXPECT_EQ(standard(), 9981545732273789042ull);

    RowEngine engine(dare_engine_seed(kTensorSeed, 7));
    EXPECT_EQ(engine(), 11489753729954982291ull);
    EXPECT_EQ(uniform_draw(engine), 0x1.16dee6p-1f);
    EXPECT_EQ(uniform_draw(engine), 0x1.bf8c2p-3f);
}

TEST(UnitFloat, RoundsToNearestAndStaysBelowOne) {
    EXPECT_EQ(unit_float(0), 0.0f);
    EXPECT_EQ(unit_float(1ull << 63), 0.5f);
    // 2^40 + 1 needs more than 24 bits and rounds down to 2^40.
    EXPECT_EQ(unit_float((1ull << 40) + 1), 0x1p-24f);
    EXPECT_EQ(unit_float(~0ull), std::bit_cast<float>(0x3f7fffffu));
    EXPECT_EQ(unit_float(~0ull - (1ull << 38)), std::bit_cast<float>(0x3f7fffffu));
    // Agrees with the compiler's own unsigned conversion, including ties to even
    // on both sides of 2^63 and small values that need no rounding.
    RowEngine engine(6);
    for (int i = 0; i < 100000; ++i) {
        const uint64_t x = engine() >> (i % 64);
        ASSERT_EQ(unit_float(x), static_cast<float>(x) * 0x1p-64f) << x;
    }
    for (uint64_t x : {(1ull << 63) + (1ull << 39), (1ull << 63) + (3ull << 39),
                       (1ull << 62) + (1ull << 38), (1ull << 63) - 1, 1ull}) {
        EXPECT_EQ(unit_float(x), static_cast<float>(x) * 0x1p-64f) << x;
    }
}

struct Moments {
    double mean = 0.0;
    double variance = 0.0;
};

template <typename Draw>
Moments moments(int count, Draw draw) {
    double sum = 0.0;
    double squares = 0.0;
    for (int i = 0; i < count; ++i) {
        const double x = draw();
        sum += x;
        squares += x * x;
    }
    const double mean = sum / count;
    return {mean, squares / count - mean * mean};
}

TEST(UniformDraw, HasUniformMeanAndVariance) {
    RowEngine engine(1);
    float lo = 1.0f;
    float hi = 0.0f;
    const Moments m = moments(1000000, [&] {
        const float u = uniform_draw(engine);
        lo = std::min(lo, u);
        hi = std::max(hi, u);
        return u;
    });
    EXPECT_NEAR(m.mean, 0.5, 0.002);
    EXPECT_NEAR(m.variance, 1.0 / 12.0, 0.001);
    EXPECT_GE(lo, 0.0f);
    EXPECT_LT(hi, 1.0f);
}

TEST(NormalDraw, IsStandardNormal) {
    RowEngine engine(2);
    GammaDraw state = make_gamma_draw(1.0f);
    int within_one = 0;
    const Moments m = moments(1000000, [&] {
        const float x = normal_draw(state, engine);
        within_one += std::fabs(x) <= 1.0f;
        return x;
    });
    EXPECT_NEAR(m.mean, 0.0, 0.005);
    EXPECT_NEAR(m.variance, 1.0, 0.01);
    EXPECT_NEAR(within_one / 1e6, 0.6827, 0.003);
}

TEST(NormalDraw, ReturnsThePairYFirstThenTheCachedX) {
    RowEngine engine(3);
    RowEngine copy = engine;
    GammaDraw state = make_gamma_draw(1.0f);
    const float first = normal_draw(state, engine);
    const float second = normal_draw(state, engine);
    float x = 0.0f;
    float y = 0.0f;
    float r2 = 0.0f;
    do {
        x = 2.0f * uniform_draw(copy) - 1.0f;
        y = 2.0f * uniform_draw(copy) - 1.0f;
        r2 = x * x + y * y;
    } while (r2 > 1.0f || r2 == 0.0f);
    const float m = std::sqrt(std::log(r2) * -2.0f / r2);
    EXPECT_EQ(first, y * m);
    EXPECT_EQ(second, x * m);
    EXPECT_EQ(engine(), copy());  // the second value cost no draw
}

TEST(GammaDraw, MeanAndVarianceMatchTheShape) {
    for (float alpha : {0.3f, 1.0f, 2.5f, 8.22f}) {
        SCOPED_TRACE(alpha);
        RowEngine engine(4);
        GammaDraw state = make_gamma_draw(alpha);
        bool negative = false;
        const int count = 200000;
        const Moments m = moments(count, [&] {
            const float g = gamma_draw(state, engine);
            negative = negative || g < 0.0f;
            return g;
        });
        EXPECT_NEAR(m.mean, alpha, 5.0 * std::sqrt(alpha / count));
        EXPECT_NEAR(m.variance, alpha, 0.05 * alpha);
        EXPECT_FALSE(negative);
    }
}

// Worked out with an independent emulation of the single-precision steps on the
// same C mathematics library; another libm may differ in the last bits.
TEST(GammaDraw, MatchesGoldenValues) {
    const struct {
        float alpha;
        std::vector<float> first;
    } cases[] = {
        {0.3f, {0x1.2bcf84p-1f, 0x1.b9a41ep-13f, 0x1.5443f6p-4f, 0x1.7ce9eap-3f}},
        {4.3f, {0x1.4bb45p+2f, 0x1.4bf27ep+0f, 0x1.7f77b4p+1f, 0x1.7e7506p+1f}},
    };
    for (const auto& c : cases) {
        RowEngine engine(123);
        GammaDraw state = make_gamma_draw(c.alpha);
        for (float expected : c.first) {
            EXPECT_EQ(gamma_draw(state, engine), expected);
        }
    }
}

TEST(GammaDraw, ShapesBelowOneTakeOneMoreDrawAndRescale) {
    const GammaDraw low = make_gamma_draw(0.5f);
    const GammaDraw high = make_gamma_draw(1.5f);
    EXPECT_EQ(low.adjusted_alpha, 1.5f);
    EXPECT_EQ(low.a1, high.a1);
    EXPECT_EQ(low.a2, high.a2);

    // Same seed and same a1/a2: both accept the same v, then the boosted draw
    // spends one extra uniform on u^(1/alpha). Shape 1.0 stands on the plain path.
    for (float plain : {1.0f, 1.5f}) {
        SCOPED_TRACE(plain);
        GammaDraw direct = make_gamma_draw(plain);
        GammaDraw boosted = direct;
        boosted.alpha = 0.5f;
        RowEngine e1(5);
        RowEngine e2(5);
        const float g1 = gamma_draw(direct, e1);
        const float g2 = gamma_draw(boosted, e2);
        const float u = uniform_draw(e1);
        EXPECT_NEAR(g2, std::pow(u, 2.0f) * g1, 1e-6f * g1);
        EXPECT_EQ(e1(), e2());
    }
}

}  // namespace
}  // namespace tevrin
