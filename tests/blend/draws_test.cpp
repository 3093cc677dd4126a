#include "blend/draws.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <tuple>

namespace tevrin {
namespace {

TEST(Draws, RowEngineMatchesTheStandardMersenneTwister) {
    for (uint64_t seed : {0ull, 5489ull, ~0ull}) {
        RowEngine mine(seed);
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 2000; ++i) {  // crosses several regenerations
            ASSERT_EQ(mine(), standard()) << seed << " " << i;
        }
    }
}

// Goldens from an independent implementation of SplitMix64, the 64-bit Mersenne
// Twister, the library's byte hash and the single-precision steps.
TEST(Draws, MatchGoldenValues) {
    const std::string name = "blk.0.attn_q.weight";
    const uint64_t seed = 0x62d24394031416aeull;
    EXPECT_EQ(mix64(0), 0xe220a8397b1dcdafull);
    EXPECT_EQ(tensor_seed(42, name), seed);
    EXPECT_EQ(tensor_seed(42, name), mix64(42 ^ mix64(std::hash<std::string>{}(name))));
    EXPECT_EQ(dare_engine_seed(seed, 7), 0xf769ff2f479dd4efull);
    EXPECT_EQ(della_engine_seed(seed, 7), 0x15a78ef68ff4d3e2ull);
    EXPECT_EQ(chaos_engine_seed(seed, 70), 0x1fd7708299a5059eull);
    RowEngine engine(dare_engine_seed(seed, 7));
    EXPECT_EQ(engine(), 11489753729954982291ull);
    EXPECT_EQ(uniform_draw(engine), 0x1.16dee6p-1f);
    EXPECT_EQ(unit_float(~0ull), 0x1.fffffep-1f);  // rounds to 2^64, pulled back below 1
    // Shape 0.3 takes the extra draw of the boost; 4.3 pins the order of the normal
    // pair. The C library's logf and powf take part.
    RowEngine gamma_engine(123);
    GammaDraw low = make_gamma_draw(0.3f), high = make_gamma_draw(4.3f);
    EXPECT_EQ(gamma_draw(low, gamma_engine), 0x1.2bcf84p-1f);
    EXPECT_EQ(gamma_draw(low, gamma_engine), 0x1.b9a41ep-13f);
    RowEngine high_engine(123);
    EXPECT_EQ(gamma_draw(high, high_engine), 0x1.4bb45p+2f);
    EXPECT_EQ(gamma_draw(high, high_engine), 0x1.4bf27ep+0f);
    RowEngine one_engine(123);  // shape 1 is drawn as it is, without the boost
    GammaDraw one = make_gamma_draw(1.0f);
    EXPECT_EQ(gamma_draw(one, one_engine), 0x1.3b9ad8p+0f);
}

// Sample moments within 5 standard errors for the mean and 5% for the variance.
TEST(Draws, UniformNormalAndGammaHaveTheirMoments) {
    using Draw = float (*)(GammaDraw&, RowEngine&);
    const Draw uniform = [](GammaDraw&, RowEngine& e) { return uniform_draw(e); };
    // Draw, shape, mean and variance.
    const std::tuple<Draw, float, double, double> cases[] = {{uniform, 1, 0.5, 1.0 / 12},
                                                             {normal_draw, 1, 0, 1},
                                                             {gamma_draw, 0.3f, 0.3, 0.3},
                                                             {gamma_draw, 1, 1, 1},
                                                             {gamma_draw, 8.22f, 8.22, 8.22}};
    const int count = 400000;
    for (const auto& [draw, alpha, mean, variance] : cases) {
        RowEngine engine(1);
        GammaDraw state = make_gamma_draw(alpha);
        double sum = 0.0, squares = 0.0;
        for (int i = 0; i < count; ++i) {
            const double x = draw(state, engine);
            sum += x, squares += x * x;
        }
        EXPECT_NEAR(sum / count, mean, 5.0 * std::sqrt(variance / count)) << alpha;
        EXPECT_NEAR(squares / count - sum * sum / count / count, variance, 0.05 * variance)
            << alpha;
    }
}

}  // namespace
}  // namespace tevrin
