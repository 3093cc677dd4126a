// q6_k in AVX2. A super-block of 256 has sixteen sub-blocks of 16; the signed
// scale search (the largest magnitude, then 18 trial scales weighted by x * x)
// runs for eight sub-blocks at once, lane j holding one sub-block, each lane
// summing its own elements in the base library's order. The 8-bit scales, the
// final levels and the packing follow as in the library.
#include <cmath>

#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int kSuper = 256;
constexpr int kSub = 16;
constexpr int kNmax = 32;
constexpr float kAllZero = 1e-15f;  // the library's bound for an all-zero group

struct SignedFit {
    float scale[8];
    int32_t levels[kSub][8];  // 0 to 63
};

TEVRIN_AVX2 __m256i signed_levels(__m256 x, __m256 iscale) {
    return clamp8(nearest_int8(_mm256_mul_ps(iscale, x)), -kNmax, kNmax - 1);
}

// Weighted sums of one trial scale: sum of w*x*l and of w*l*l with w = x*x.
TEVRIN_AVX2 void trial_sums(const __m256* xt, const __m256i* l, __m256& sumlx, __m256& suml2) {
    sumlx = _mm256_setzero_ps();
    suml2 = _mm256_setzero_ps();
    for (int i = 0; i < kSub; ++i) {
        const __m256 lf = _mm256_cvtepi32_ps(l[i]);
        const __m256 w = _mm256_mul_ps(xt[i], xt[i]);
        sumlx = _mm256_add_ps(sumlx, _mm256_mul_ps(_mm256_mul_ps(w, xt[i]), lf));
        suml2 = _mm256_add_ps(suml2, _mm256_mul_ps(_mm256_mul_ps(w, lf), lf));
    }
}

// The library's signed scale search for eight sub-blocks of 16 starting at x.
TEVRIN_AVX2 void fit_signed(const float* x, SignedFit& fit) {
    const __m256i lanes = _mm256_setr_epi32(0, 16, 32, 48, 64, 80, 96, 112);
    const __m256 zero = _mm256_setzero_ps();
    __m256 xt[kSub];
    __m256 amax = zero;
    __m256 max = zero;
    for (int i = 0; i < kSub; ++i) {
        xt[i] = _mm256_i32gather_ps(x + i, lanes, 4);
        const __m256 ax = abs8(xt[i]);
        const __m256 larger = _mm256_cmp_ps(ax, amax, _CMP_GT_OQ);
        amax = _mm256_blendv_ps(amax, ax, larger);
        max = _mm256_blendv_ps(max, xt[i], larger);
    }
    const __m256 all_zero = _mm256_cmp_ps(amax, _mm256_set1_ps(kAllZero), _CMP_LT_OQ);

    __m256 iscale = _mm256_div_ps(_mm256_set1_ps(float(-kNmax)), max);
    __m256i l[kSub];
    for (int i = 0; i < kSub; ++i) {
        l[i] = signed_levels(xt[i], iscale);
    }
    __m256i best_levels[kSub];
    for (int i = 0; i < kSub; ++i) {
        best_levels[i] = l[i];
    }
    __m256 sumlx;
    __m256 suml2;
    trial_sums(xt, l, sumlx, suml2);
    // `suml2 ? sumlx / suml2 : 0`: a NaN counts as true
    __m256 scale =
        _mm256_and_ps(_mm256_div_ps(sumlx, suml2), _mm256_cmp_ps(suml2, zero, _CMP_NEQ_UQ));
    __m256 best = _mm256_mul_ps(scale, sumlx);
    for (int is = -9; is <= 9; ++is) {
        if (is == 0) {
            continue;
        }
        const float numerator = -(float(kNmax) + 0.1f * float(is));
        iscale = _mm256_div_ps(_mm256_set1_ps(numerator), max);
        for (int i = 0; i < kSub; ++i) {
            l[i] = signed_levels(xt[i], iscale);
        }
        trial_sums(xt, l, sumlx, suml2);
        const __m256 better = _mm256_and_ps(
            _mm256_cmp_ps(suml2, zero, _CMP_GT_OQ),
            _mm256_cmp_ps(_mm256_mul_ps(sumlx, sumlx), _mm256_mul_ps(best, suml2), _CMP_GT_OQ));
        if (_mm256_movemask_ps(better) == 0) {
            continue;
        }
        const __m256i take = _mm256_castps_si256(better);
        for (int i = 0; i < kSub; ++i) {
            best_levels[i] = _mm256_blendv_epi8(best_levels[i], l[i], take);
        }
        scale = _mm256_blendv_ps(scale, _mm256_div_ps(sumlx, suml2), better);
        best = _mm256_blendv_ps(best, _mm256_mul_ps(scale, sumlx), better);
    }
    _mm256_storeu_ps(fit.scale, _mm256_blendv_ps(scale, zero, all_zero));
    const __m256i offset = _mm256_set1_epi32(kNmax);
    for (int i = 0; i < kSub; ++i) {
        const __m256i level = _mm256_add_epi32(best_levels[i], offset);
        _mm256_storeu_si256((__m256i*)fit.levels[i],
                            _mm256_andnot_si256(_mm256_castps_si256(all_zero), level));
    }
}

void pack_q6_k(const int8_t* levels, uint8_t* out) {
    uint8_t* ql = out;
    uint8_t* qh = out + 128;
    for (int j = 0; j < kSuper; j += 128, ql += 64, qh += 32) {
        for (int l = 0; l < 32; ++l) {
            const uint8_t q1 = levels[j + l + 0] & 0xF;
            const uint8_t q2 = levels[j + l + 32] & 0xF;
            const uint8_t q3 = levels[j + l + 64] & 0xF;
            const uint8_t q4 = levels[j + l + 96] & 0xF;
            ql[l + 0] = uint8_t(q1 | (q3 << 4));
            ql[l + 32] = uint8_t(q2 | (q4 << 4));
            qh[l] = uint8_t((levels[j + l] >> 4) | ((levels[j + l + 32] >> 4) << 2) |
                            ((levels[j + l + 64] >> 4) << 4) | ((levels[j + l + 96] >> 4) << 6));
        }
    }
}

TEVRIN_AVX2 void encode_q6_k_super(const float* x, uint8_t* out) {
    SignedFit fits[2];
    fit_signed(x, fits[0]);
    fit_signed(x + 128, fits[1]);
    float scales[16];
    float max_scale = 0;
    float max_abs_scale = 0;
    for (int ib = 0; ib < 16; ++ib) {
        scales[ib] = fits[ib / 8].scale[ib % 8];
        const float abs_scale = std::fabs(scales[ib]);
        if (abs_scale > max_abs_scale) {
            max_abs_scale = abs_scale;
            max_scale = scales[ib];
        }
    }
    if (max_abs_scale < kAllZero) {
        std::memset(out, 0, 210);
        store_half(out + 208, half_bits(0.f));
        return;
    }
    const float iscale = -128.f / max_scale;
    const uint16_t d_half = half_bits(1 / iscale);
    int8_t* stored_scales = reinterpret_cast<int8_t*>(out + 192);
    for (int ib = 0; ib < 16; ++ib) {
        const int s = nearest_int(iscale * scales[ib]);
        stored_scales[ib] = int8_t(s < 127 ? s : 127);
    }
    const float d_all = half_value(d_half);
    int8_t levels[kSuper];
    for (int j = 0; j < 16; ++j) {
        const float d = d_all * stored_scales[j];
        int8_t* dest = levels + kSub * j;
        if (d == 0.0f) {
            for (int i = 0; i < kSub; ++i) {
                dest[i] = int8_t(fits[j / 8].levels[i][j % 8]);
            }
            continue;
        }
        const __m256 dv = _mm256_set1_ps(d);
        alignas(32) int32_t q[kSub];
        for (int k = 0; k < kSub; k += 8) {
            const __m256 v = _mm256_div_ps(_mm256_loadu_ps(x + kSub * j + k), dv);
            const __m256i level = clamp8(nearest_int8(v), -kNmax, kNmax - 1);
            _mm256_store_si256((__m256i*)(q + k),
                               _mm256_add_epi32(level, _mm256_set1_epi32(kNmax)));
        }
        for (int i = 0; i < kSub; ++i) {
            dest[i] = int8_t(q[i]);
        }
    }
    pack_q6_k(levels, out);
    store_half(out + 208, d_half);
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q6_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kSuper, out += 210) {
        if (all_finite(x, kSuper)) {
            encode_q6_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q6_K, x, out, kSuper);
        }
    }
}
#endif

}  // namespace tevrin
