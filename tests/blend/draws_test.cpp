#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <functional>
#include <vector>

#include "blend/draws.h"

namespace tevrin {
namespace {

// Goldens come from an independent implementation of SplitMix64, the 64-bit
// Mersenne Twister, the library's byte hash and the single-precision steps.
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
    EXPECT_EQ(uniform_draw(engine), 0x1.bf8c2p-3f);
    // Outputs that round up to 2^64 are pulled back below 1; the others round as
    // an unsigned conversion does, ties to even, a lost low bit included.
    EXPECT_EQ(unit_float(~0ull), std::bit_cast<float>(0x3f7fffffu));
    for (uint64_t x : {(1ull << 63) + (1ull << 39), (1ull << 63) + (1ull << 39) + 1,
                       (1ull << 63) + (3ull << 39), (1ull << 62) + (1ull << 38)}) {
        EXPECT_EQ(unit_float(x), static_cast<float>(x) * 0x1p-64f) << x;
    }
    // Shape 0.3 takes the extra draw of the boost. The C library's logf and powf
    // take part; another library may differ in the last bits.
    const std::pair<float, std::vector<float>> gammas[] = {
        {0.3f, {0x1.2bcf84p-1f, 0x1.b9a41ep-13f, 0x1.5443f6p-4f, 0x1.7ce9eap-3f}},
        {4.3f, {0x1.4bb45p+2f, 0x1.4bf27ep+0f, 0x1.7f77b4p+1f, 0x1.7e7506p+1f}},
    };
    for (const auto& [alpha, expected] : gammas) {
        RowEngine gamma_engine(123);
        GammaDraw state = make_gamma_draw(alpha);
        for (float g : expected) {
            EXPECT_EQ(gamma_draw(state, gamma_engine), g) << alpha;
        }
    }
}

// Sample moments within 5 standard errors for the mean and 5% for the variance.
TEST(Draws, UniformNormalAndGammaHaveTheirMoments) {
    const struct {
        const char* name;
        float (*draw)(GammaDraw&, RowEngine&);
        float alpha;
        double mean, variance;
    } cases[] = {
        {"uniform", [](GammaDraw&, RowEngine& e) { return uniform_draw(e); }, 1, 0.5, 1.0 / 12},
        {"normal", normal_draw, 1.0f, 0.0, 1.0},
        {"gamma 0.3", gamma_draw, 0.3f, 0.3, 0.3},
        {"gamma 1", gamma_draw, 1.0f, 1.0, 1.0},
        {"gamma 8.22", gamma_draw, 8.22f, 8.22, 8.22},
    };
    const int count = 400000;
    for (const auto& c : cases) {
        RowEngine engine(1);
        GammaDraw state = make_gamma_draw(c.alpha);
        double sum = 0.0;
        double squares = 0.0;
        for (int i = 0; i < count; ++i) {
            const double x = c.draw(state, engine);
            sum += x;
            squares += x * x;
        }
        const double mean = sum / count;
        EXPECT_NEAR(mean, c.mean, 5.0 * std::sqrt(c.variance / count)) << c.name;
        EXPECT_NEAR(squares / count - mean * mean, c.variance, 0.05 * c.variance) << c.name;
    }
}

}  // namespace
}  // namespace tevrin
