// Runs blend_rows on rows held in vectors, so inputs and expected outputs read as
// plain lists, and compares results with double-precision references.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "blend/blend.h"

namespace tevrin::testing {

using Floats = std::vector<float>;
using Rows = std::vector<Floats>;
using Doubles = std::vector<double>;

inline MethodSpec spec_of(BlendMethod method, float t = 0.5f, Floats weights = {}) {
    MethodSpec spec;
    spec.method = method, spec.t = t, spec.weights = std::move(weights);
    return spec;
}

// Blends rows [first, first + rows) of the sources into the same rows of `out`.
inline void run_rows(const MethodSpec& spec, uint64_t seed, const Rows& sources, Floats& out,
                     int64_t first, int64_t rows, int64_t row_len) {
    std::vector<const float*> at;
    for (const auto& s : sources) {
        at.push_back(s.data() + first * row_len);
    }
    blend_rows(spec, seed, first, at, out.data() + first * row_len, rows, row_len);
}

// All rows in one call; row_len 0 makes the whole list one row.
inline Floats run(const MethodSpec& spec, const Rows& sources, int64_t row_len = 0,
                  uint64_t seed = 7) {
    const auto count = static_cast<int64_t>(sources[0].size());
    row_len = row_len == 0 ? count : row_len;
    Floats out(sources[0].size(), -12345.0f);
    run_rows(spec, seed, sources, out, 0, count / row_len, row_len);
    return out;
}

inline double dot(const Doubles& a, const Doubles& b) {
    double s = 0.0;
    for (size_t e = 0; e < a.size(); ++e) {
        s += a[e] * b[e];
    }
    return s;
}

inline Doubles wide(const Floats& row) {
    return Doubles(row.begin(), row.end());
}

// Every element within `tolerance` relative to the reference's largest magnitude.
inline void expect_close(const Floats& out, const Doubles& expected, double tolerance = 1e-6) {
    ASSERT_EQ(out.size(), expected.size());
    double scale = 1e-30;
    for (double x : expected) {
        scale = std::max(scale, std::fabs(x));
    }
    for (size_t e = 0; e < out.size(); ++e) {
        EXPECT_NEAR(out[e], expected[e], tolerance * scale) << "element " << e;
    }
}

}  // namespace tevrin::testing
