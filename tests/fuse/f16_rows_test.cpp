#include "fuse/f16_rows.h"

#include <ggml.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace tevrin {
namespace {

TEST(F16Rows, EveryHalfConvertsExactlyAsGgmlDoes) {
    std::vector<uint16_t> half(65536 + 5);  // odd length: the tail path too
    for (size_t i = 0; i < half.size(); ++i) {
        half[i] = uint16_t(i);
    }
    std::vector<float> fast(half.size()), reference(half.size());
    const auto* bytes = reinterpret_cast<const uint8_t*>(half.data());
    f16_row_to_floats(bytes, fast.data(), int64_t(half.size()));
    ggml_get_type_traits(GGML_TYPE_F16)->to_float(bytes, reference.data(), int64_t(half.size()));
    EXPECT_EQ(std::memcmp(fast.data(), reference.data(), fast.size() * sizeof(float)), 0);
}

}  // namespace
}  // namespace tevrin
