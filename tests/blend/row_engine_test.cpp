#include "blend/row_engine.h"

#include <gtest/gtest.h>

#include <random>

namespace tevrin {
namespace {

TEST(RowEngine, MatchesTheStandardMersenneTwister) {
    for (uint64_t seed : {0ull, 1ull, 5489ull, 0x9e3779b97f4a7c15ull, ~0ull}) {
        RowEngine mine(seed);
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 2000; ++i) {  // crosses several regenerations
            ASSERT_EQ(mine(), standard()) << "seed " << seed << " output " << i;
        }
    }
    RowEngine by_default;
    std::mt19937_64 standard;
    by_default.discard(9999);
    standard.discard(9999);
    EXPECT_EQ(by_default(), standard());
}

}  // namespace
}  // namespace tevrin
