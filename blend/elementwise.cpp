#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "blend/blend.h"
#include "blend/cpu_features.h"
#include "blend/draws.h"
#include "blend/methods.h"
#include "recipe/method_table.h"

namespace tevrin {
namespace {

// out := sum over k of sources[k] * w[k], from 0.0 and in source order: element i
// is ((0.0f + s0[i] * w0) + s1[i] * w1) + ..., each step rounded. The loops take
// two sources per pass over the range; each element still sees that sequence of
// roundings, whatever the vector width the compiler picks.
__attribute__((always_inline)) inline void weighted_sum_passes(const float* const* src,
                                                               const float* w, size_t n, float* out,
                                                               int64_t count) {
    size_t k = 0;
    if (n >= 2) {
        for (int64_t i = 0; i < count; ++i) {
            out[i] = (0.0f + src[0][i] * w[0]) + src[1][i] * w[1];
        }
        k = 2;
    } else {
        for (int64_t i = 0; i < count; ++i) {
            out[i] = 0.0f + src[0][i] * w[0];
        }
        k = 1;
    }
    for (; k + 1 < n; k += 2) {
        for (int64_t i = 0; i < count; ++i) {
            out[i] = (out[i] + src[k][i] * w[k]) + src[k + 1][i] * w[k + 1];
        }
    }
    if (k < n) {
        for (int64_t i = 0; i < count; ++i) {
            out[i] = out[i] + src[k][i] * w[k];
        }
    }
}

void weighted_sum_plain(const float* const* src, const float* w, size_t n, float* out,
                        int64_t count) {
    weighted_sum_passes(src, w, n, out, count);
}

#if defined(__x86_64__)
// The same loops in 8 lanes; the target adds no fused multiply-add.
__attribute__((target("avx2"))) void weighted_sum_avx2(const float* const* src, const float* w,
                                                       size_t n, float* out, int64_t count) {
    weighted_sum_passes(src, w, n, out, count);
}
#endif

#if defined(__x86_64__)
// Converts up to 8 halves of each source at element i and sums them with the
// float loops.
__attribute__((target("avx2,f16c"))) void weighted_sum_f16_group(const uint16_t* const* src,
                                                                 const float* w, size_t n,
                                                                 float* out, int64_t i,
                                                                 int64_t count) {
    float floats[8][8];
    const float* rows[8];
    for (size_t k = 0; k < n; ++k) {
        for (int64_t e = 0; e < count; ++e) {
            floats[k][e] = _cvtsh_ss(src[k][i + e]);
        }
        rows[k] = floats[k];
    }
    weighted_sum_avx2(rows, w, n, out + i, count);
}

// weighted_sum_passes on sources in half precision, converted as they are read
// (the conversion is exact), all sources in one pass: element i sees
// ((0.0f + s0[i] * w0) + s1[i] * w1) + ..., each step rounded, none fused (the
// target has no FMA). Where both operands of an addition are NaN, the CPU keeps
// the first one's payload, and the compiler may put either first; so a group of
// 8 with a NaN in it, and the last few elements, are summed again by the float
// loops, whose bytes the output has always had.
__attribute__((target("avx2,f16c"))) void weighted_sum_f16_avx2(const uint16_t* const* src,
                                                                const float* w, size_t n,
                                                                float* out, int64_t count) {
    assert(n <= 8);
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        __m256 sum = _mm256_setzero_ps();
        for (size_t k = 0; k < n; ++k) {
            const __m256 halves =
                _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src[k] + i)));
            sum = _mm256_add_ps(sum, _mm256_mul_ps(halves, _mm256_set1_ps(w[k])));
        }
        if (_mm256_movemask_ps(_mm256_cmp_ps(sum, sum, _CMP_UNORD_Q)) != 0) {
            weighted_sum_f16_group(src, w, n, out, i, 8);
        } else {
            _mm256_storeu_ps(out + i, sum);
        }
    }
    if (i < count) {
        weighted_sum_f16_group(src, w, n, out, i, count - i);
    }
}

bool finite_weights(const std::vector<float>& w) {
    return std::all_of(w.begin(), w.end(), [](float x) { return std::isfinite(x); });
}
#endif

void weighted_sum(const std::vector<const float*>& sources, const std::vector<float>& w, float* out,
                  int64_t count) {
#if defined(__x86_64__)
    if (cpu_features().avx2) {
        return weighted_sum_avx2(sources.data(), w.data(), sources.size(), out, count);
    }
#endif
    weighted_sum_plain(sources.data(), w.data(), sources.size(), out, count);
}

// The second end of slerp and nearswap; a lone source stands for both ends.
const float* second_source(const BlendCall& call) {
    return call.sources.size() > 1 ? call.sources[1] : call.sources[0];
}

void lerp_row(const float* a, const float* b, float t, float* out, int64_t len) {
    const float one_minus_t = 1.0f - t;
    for (int64_t e = 0; e < len; ++e) {
        out[e] = b[e] * t + a[e] * one_minus_t;
    }
}

void slerp_row(const float* a, const float* b, float t, float* out, int64_t len) {
    double aa = 0.0;
    double bb = 0.0;
    double ab = 0.0;
    for (int64_t e = 0; e < len; ++e) {
        const double da = a[e];
        const double db = b[e];
        aa += da * da;
        bb += db * db;
        ab += da * db;
    }
    const double na = std::sqrt(aa);
    const double nb = std::sqrt(bb);
    if (!(na > 0.0) || !(nb > 0.0)) {
        return lerp_row(a, b, t, out, len);
    }
    const double c = ab / (nb * na);
    // Nearly parallel or opposite rows: the sine below would be close to 0.
    if (std::fabs(c) > 0.9995) {
        return lerp_row(a, b, t, out, len);
    }
    const double theta = std::acos(c);
    const double s = std::sin(theta);
    const float one_minus_t = 1.0f - t;
    const float wa = static_cast<float>(std::sin(static_cast<double>(one_minus_t) * theta) / s);
    const float wb = static_cast<float>(std::sin(static_cast<double>(t) * theta) / s);
    for (int64_t e = 0; e < len; ++e) {
        out[e] = b[e] * wb + a[e] * wa;
    }
}

// Odd-even transposition sort. A pair is swapped only when strictly out of
// order, so equal values keep their source order (which decides the sign of a
// zero median), and with a constant count the compiler unrolls it into branch-free
// min/max code.
inline void sort_network(float* v, size_t count) {
#pragma GCC unroll 8
    for (size_t pass = 0; pass < count; ++pass) {
#pragma GCC unroll 4
        for (size_t j = pass % 2; j + 1 < count; j += 2) {
            const float lo = v[j + 1] < v[j] ? v[j + 1] : v[j];
            const float hi = v[j + 1] < v[j] ? v[j] : v[j + 1];
            v[j] = lo;
            v[j + 1] = hi;
        }
    }
}

template <size_t N>
void median_of(const BlendCall& call) {
    const float* src[N];
    std::copy(call.sources.begin(), call.sources.begin() + N, src);
    constexpr size_t m = N / 2;
    const int64_t count = call.rows * call.row_len;
    for (int64_t i = 0; i < count; ++i) {
        float v[N];
#pragma GCC unroll 8
        for (size_t k = 0; k < N; ++k) {
            v[k] = src[k][i];
        }
        sort_network(v, N);
        call.out[i] = N % 2 == 1 ? v[m] : (v[m] + v[m - 1]) * 0.5f;
    }
}

// Longer lists than the pipeline ever sends: the same sort on a reused list.
void median_of_many(const BlendCall& call) {
    const size_t n = call.sources.size();
    const size_t m = n / 2;
    std::vector<float> v(n);
    const int64_t count = call.rows * call.row_len;
    for (int64_t i = 0; i < count; ++i) {
        for (size_t k = 0; k < n; ++k) {
            v[k] = call.sources[k][i];
        }
        sort_network(v.data(), n);
        call.out[i] = n % 2 == 1 ? v[m] : (v[m] + v[m - 1]) * 0.5f;
    }
}

std::vector<float> chaos_weights(uint64_t seed, int64_t row, float alpha, size_t count) {
    RowEngine engine(chaos_engine_seed(seed, row));
    GammaDraw gamma = make_gamma_draw(alpha);
    std::vector<float> w(count);
    float total = 0.0f;
    for (size_t k = 0; k < count; ++k) {
        w[k] = gamma_draw(gamma, engine) + 1e-6f;
        total = total + w[k];
    }
    for (float& wk : w) {
        wk = wk / total;
    }
    return w;
}

// The method's weights scaled to sum to 1 (in double); all zero stays zero.
std::vector<float> linear_weights(const MethodSpec& spec, size_t n) {
    std::vector<float> w = method_weights(spec, n);
    double sum = 0.0;
    for (float wk : w) {
        sum += static_cast<double>(wk);
    }
    if (sum == 0.0) {
        sum = 1.0;
    }
    for (float& wk : w) {
        wk = static_cast<float>(static_cast<double>(wk) / sum);
    }
    return w;
}

}  // namespace

void blend_linear(const BlendCall& call) {
    weighted_sum(call.sources, linear_weights(call.spec, call.sources.size()), call.out,
                 call.rows * call.row_len);
}

bool blend_f16_rows(const MethodSpec& spec, const std::vector<const uint16_t*>& sources, float* out,
                    int64_t rows, int64_t row_len) {
#if defined(__x86_64__)
    if (spec.method != BlendMethod::linear || !cpu_features().avx2 || !cpu_features().f16c) {
        return false;
    }
    // Weights that are not finite are left to the decoded path: there the NaN of
    // a product may come from either operand.
    const std::vector<float> w = linear_weights(spec, sources.size());
    if (!finite_weights(w)) {
        return false;
    }
    weighted_sum_f16_avx2(sources.data(), w.data(), sources.size(), out,
                          std::max<int64_t>(rows, 0) * std::max<int64_t>(row_len, 0));
    return true;
#else
    return false;
#endif
}

void blend_slerp(const BlendCall& call) {
    const float* a = call.sources[0];
    const float* b = second_source(call);
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * call.row_len;
        slerp_row(a + at, b + at, call.spec.t, call.out + at, call.row_len);
    }
}

void blend_pick(const BlendCall& call) {
    // The pipeline always hands a valid entry; anything else takes the base rather
    // than reading outside the list.
    const int32_t pick = call.spec.pick;
    const size_t entry = pick >= 0 && static_cast<size_t>(pick) < call.sources.size()
                             ? static_cast<size_t>(pick)
                             : 0;
    std::memcpy(call.out, call.sources[entry],
                static_cast<size_t>(call.rows * call.row_len) * sizeof(float));
}

void blend_median(const BlendCall& call) {
    switch (call.sources.size()) {
        case 1:
            return median_of<1>(call);
        case 2:
            return median_of<2>(call);
        case 3:
            return median_of<3>(call);
        case 4:
            return median_of<4>(call);
        case 5:
            return median_of<5>(call);
        case 6:
            return median_of<6>(call);
        case 7:
            return median_of<7>(call);
        case 8:
            return median_of<8>(call);
        default:
            return median_of_many(call);
    }
}

void blend_nearswap(const BlendCall& call) {
    const float* a = call.sources[0];
    const float* b = second_source(call);
    const float tau = method_t(call.spec);
    const int64_t count = call.rows * call.row_len;
    for (int64_t i = 0; i < count; ++i) {
        const float d = std::fabs(b[i] - a[i]);
        float w = 1.0f;
        if (d > 0.0f && tau / d <= 1.0f) {
            w = tau / d;
        }
        call.out[i] = b[i] * w + a[i] * (1.0f - w);
    }
}

void blend_chaos(const BlendCall& call) {
    const float c = method_t(call.spec);
    const float alpha = (1.0f - c) * 8.0f + 0.3f;
    const size_t n = call.sources.size();
    std::vector<const float*> block_sources(n);
    int64_t r = 0;
    while (r < call.rows) {
        // Rows up to the end of this row's block share one set of weights, made
        // from the block's number alone.
        const int64_t row = call.first_row + r;
        const int64_t block_end = (row / kChaosBlockRows + 1) * kChaosBlockRows;
        const int64_t span = std::min(block_end - row, call.rows - r);
        const std::vector<float> w = chaos_weights(call.seed, row, alpha, n);
        const int64_t at = r * call.row_len;
        for (size_t k = 0; k < n; ++k) {
            block_sources[k] = call.sources[k] + at;
        }
        weighted_sum(block_sources, w, call.out + at, span * call.row_len);
        r += span;
    }
}

}  // namespace tevrin
