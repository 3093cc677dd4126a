#include <gtest/gtest.h>

#include <cstring>

#include "blend_harness.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::blend_range;
using testing::method;

// The property the whole tool rests on: a tensor's rows give the same bytes
// whether they are blended in one call or cut into calls at any rows, as the
// row pipeline does across chunks and workers.
TEST(SplitCalls, EveryMethodGivesTheSameBytesHoweverRowsAreCut) {
    const int64_t rows = 100;
    const int64_t row_len = 600;  // breadcrumbs cuts a top band, della ranks by radix
    std::vector<std::vector<float>> sources;
    for (uint64_t s = 0; s < 3; ++s) {
        sources.push_back(testing::fixture_values(40 + s, rows * row_len));
    }
    // Repeated values exercise the equal-magnitude paths of the trimming methods.
    for (int64_t i = 0; i < rows * row_len; i += 7) {
        sources[1][static_cast<size_t>(i)] = sources[0][static_cast<size_t>(i)] + 0.25f;
        sources[2][static_cast<size_t>(i)] = sources[0][static_cast<size_t>(i)] - 0.25f;
    }
    const std::vector<std::vector<int64_t>> cuts = {
        {0, 1, 31, 32, 33, 63, 64, 97, 100},
        {0, 50, 100},
        {0, 7, 40, 41, 99, 100},
    };
    for (int m = 0; m <= static_cast<int>(BlendMethod::nearswap); ++m) {
        MethodSpec spec = method(static_cast<BlendMethod>(m), 0.3f, {1, 0.7f, 1.4f});
        spec.pick = 2;
        SCOPED_TRACE(method_word(spec.method));
        std::vector<float> whole(sources[0].size());
        blend_range(spec, 99, sources, whole, 0, rows, row_len);
        for (const auto& cut : cuts) {
            std::vector<float> pieces(sources[0].size(), -1.0f);
            for (size_t c = 0; c + 1 < cut.size(); ++c) {
                blend_range(spec, 99, sources, pieces, cut[c], cut[c + 1] - cut[c], row_len);
            }
            EXPECT_EQ(std::memcmp(whole.data(), pieces.data(), whole.size() * sizeof(float)), 0);
        }
    }
}

}  // namespace
}  // namespace tevrin
