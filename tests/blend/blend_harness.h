// Runs blend_rows over whole row sets held in vectors, one call or split at chosen
// rows, so tests can state inputs and expected outputs as plain lists.
#pragma once

#include <cstdint>
#include <vector>

#include "blend/blend.h"

namespace tevrin::testing {

using Rows = std::vector<std::vector<float>>;

inline std::vector<float> zeros(size_t count) {
    return std::vector<float>(count, 0.0f);
}

inline MethodSpec method(BlendMethod kind, float t = 0.5f, std::vector<float> weights = {}) {
    MethodSpec spec;
    spec.method = kind;
    spec.t = t;
    spec.weights = std::move(weights);
    return spec;
}

// Blends rows [first, first + rows) of the given sources into the same rows of `out`.
inline void blend_range(const MethodSpec& spec, uint64_t seed, const Rows& sources,
                        std::vector<float>& out, int64_t first, int64_t rows, int64_t row_len) {
    std::vector<const float*> at;
    for (const auto& s : sources) {
        at.push_back(s.data() + first * row_len);
    }
    blend_rows(spec, seed, first, at, out.data() + first * row_len, rows, row_len);
}

// All rows in one call; row_len 0 makes the whole list one row.
inline std::vector<float> blend(const MethodSpec& spec, const Rows& sources, int64_t row_len = 0,
                                uint64_t seed = 7) {
    const auto count = static_cast<int64_t>(sources[0].size());
    row_len = row_len == 0 ? count : row_len;
    std::vector<float> out(sources[0].size(), -12345.0f);
    blend_range(spec, seed, sources, out, 0, count / row_len, row_len);
    return out;
}

}  // namespace tevrin::testing
