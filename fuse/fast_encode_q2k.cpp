// q2_k in AVX2: sixteen sub-blocks of 16, searched eight at a time, their
// scales and minimums stored in 4 bits each, as the base library does.
#include <ggml.h>

#include "fuse/fast_encode_search.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr SearchShape kQ2Shape{3, -0.5f, 0.1f, 15};

TEVRIN_AVX2 void encode_q2_k_super(const float* x, uint8_t* out) {
    constexpr int n = 16;
    const float* starts[2] = {x, x + kSuperBlock / 2};
    SubBlockFit fit[2];
    fit_sub_blocks<2, n>(starts, kQ2Shape, fit);
    float max_scale = 0;
    float max_min = 0;
    for (int j = 0; j < n; ++j) {
        const float scale = fit[j / 8].scale[j % 8];
        const float min = fit[j / 8].min[j % 8];
        if (scale > max_scale) {
            max_scale = scale;
        }
        if (min > max_min) {
            max_min = min;
        }
    }
    uint8_t* sc = out;
    uint16_t d = half_bits(0.f);
    uint16_t dmin = half_bits(0.f);
    std::memset(sc, 0, n);
    if (max_scale > 0) {
        const float iscale = 15.f / max_scale;
        for (int j = 0; j < n; ++j) {
            sc[j] = uint8_t(nearest_int(iscale * fit[j / 8].scale[j % 8]));
        }
        d = half_bits(max_scale / 15.f);
    }
    if (max_min > 0) {
        const float iscale = 15.f / max_min;
        for (int j = 0; j < n; ++j) {
            sc[j] = uint8_t(sc[j] | (uint32_t(nearest_int(iscale * fit[j / 8].min[j % 8])) << 4));
        }
        dmin = half_bits(max_min / 15.f);
    }
    uint8_t levels[kSuperBlock];
    const float d_all = half_value(d);
    const float dmin_all = half_value(dmin);
    for (int j = 0; j < n; ++j) {
        const float dj = d_all * float(sc[j] & 0xF);
        uint8_t* dest = levels + n * j;
        if (dj == 0.0f) {
            for (int i = 0; i < n; ++i) {
                dest[i] = uint8_t(fit[j / 8].levels[i][j % 8]);
            }
            continue;
        }
        const __m256 dm = _mm256_set1_ps(dmin_all * float(sc[j] >> 4));
        const __m256 dv = _mm256_set1_ps(dj);
        alignas(32) int32_t q[n];
        for (int k = 0; k < n; k += 8) {
            const __m256 v = _mm256_div_ps(_mm256_add_ps(_mm256_loadu_ps(x + n * j + k), dm), dv);
            _mm256_store_si256((__m256i*)(q + k), clamp8(nearest_int8(v), 0, 3));
        }
        for (int i = 0; i < n; ++i) {
            dest[i] = uint8_t(q[i]);
        }
    }
    uint8_t* qs = out + 16;
    for (int j = 0; j < kSuperBlock; j += 128) {
        for (int l = 0; l < 32; ++l) {
            qs[j / 4 + l] = uint8_t(levels[j + l] | (levels[j + l + 32] << 2) |
                                    (levels[j + l + 64] << 4) | (levels[j + l + 96] << 6));
        }
    }
    store_half(out + 80, d);
    store_half(out + 82, dmin);
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q2_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kSuperBlock, out += 84) {
        if (all_finite(x, kSuperBlock)) {
            encode_q2_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q2_K, x, out, kSuperBlock);
        }
    }
}
#endif

}  // namespace tevrin
