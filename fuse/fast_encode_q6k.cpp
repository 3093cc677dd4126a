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

constexpr int kSub = 16;
constexpr int kNmax = 32;

struct SignedFit {
    float scale[8];
    int32_t levels[kSub][8];  // 0 to 63
};

TEVRIN_AVX2 __m256 signed_level(__m256 x, __m256 iscale) {
    return _mm256_cvtepi32_ps(clamp8(nearest_int8(_mm256_mul_ps(iscale, x)), -kNmax, kNmax - 1));
}

constexpr int G = 2;

// One pass at scale numerator / max: levels and the sums of w*x*l and w*l*l.
TEVRIN_AVX2 void run_trial(const __m256 (*xt)[G], const __m256 (*w)[G], const __m256 (*wx)[G],
                           const __m256* max, float numerator, __m256 (*l)[G], __m256* sumlx,
                           __m256* suml2) {
    __m256 iscale[G];
    for (int g = 0; g < G; ++g) {
        iscale[g] = _mm256_div_ps(_mm256_set1_ps(numerator), max[g]);
        sumlx[g] = _mm256_setzero_ps();
        suml2[g] = _mm256_setzero_ps();
    }
    for (int i = 0; i < kSub; ++i) {
#pragma GCC unroll 2
        for (int g = 0; g < G; ++g) {
            const __m256 lf = signed_level(xt[i][g], iscale[g]);
            l[i][g] = lf;
            sumlx[g] = _mm256_add_ps(sumlx[g], _mm256_mul_ps(wx[i][g], lf));
            suml2[g] = _mm256_add_ps(suml2[g], _mm256_mul_ps(_mm256_mul_ps(w[i][g], lf), lf));
        }
    }
}

// The library's signed scale search for the sixteen sub-blocks of a super-block:
// two vectors of eight lanes, run side by side to keep two chains of sums busy.
// Levels are kept as floats (small whole numbers, exact), the form the sums use.
TEVRIN_AVX2 void fit_signed(const float* x, SignedFit* fit) {
    const __m256i lanes = _mm256_setr_epi32(0, 16, 32, 48, 64, 80, 96, 112);
    const __m256 zero = _mm256_setzero_ps();
    __m256 xt[kSub][G];
    __m256 w[kSub][G];   // x * x
    __m256 wx[kSub][G];  // x * x * x, the first product of the library's w*x*l
    __m256 max[G], all_zero[G], scale[G], best[G];
    __m256 l[kSub][G];
    __m256 best_levels[kSub][G];
    __m256 sumlx[G], suml2[G];
    for (int g = 0; g < G; ++g) {
        __m256 amax = zero;
        max[g] = zero;
        for (int i = 0; i < kSub; ++i) {
            const __m256 v = _mm256_i32gather_ps(x + 128 * g + i, lanes, 4);
            xt[i][g] = v;
            w[i][g] = _mm256_mul_ps(v, v);
            wx[i][g] = _mm256_mul_ps(w[i][g], v);
            const __m256 ax = abs8(v);
            const __m256 larger = _mm256_cmp_ps(ax, amax, _CMP_GT_OQ);
            amax = _mm256_blendv_ps(amax, ax, larger);
            max[g] = _mm256_blendv_ps(max[g], v, larger);
        }
        all_zero[g] = _mm256_cmp_ps(amax, _mm256_set1_ps(kAllZeroBound), _CMP_LT_OQ);
    }
    // The first pass scales by nmax itself; the trials from nmax - 0.9 to nmax + 0.9.
    run_trial(xt, w, wx, max, float(-kNmax), l, sumlx, suml2);
    for (int g = 0; g < G; ++g) {
        // `suml2 ? sumlx / suml2 : 0`: a NaN counts as true
        scale[g] = _mm256_and_ps(_mm256_div_ps(sumlx[g], suml2[g]),
                                 _mm256_cmp_ps(suml2[g], zero, _CMP_NEQ_UQ));
        best[g] = _mm256_mul_ps(scale[g], sumlx[g]);
        for (int i = 0; i < kSub; ++i) {
            best_levels[i][g] = l[i][g];
        }
    }
    for (int is = -9; is <= 9; ++is) {
        if (is == 0) {
            continue;
        }
        run_trial(xt, w, wx, max, -(float(kNmax) + 0.1f * float(is)), l, sumlx, suml2);
        for (int g = 0; g < G; ++g) {
            const __m256 better =
                _mm256_and_ps(_mm256_cmp_ps(suml2[g], zero, _CMP_GT_OQ),
                              _mm256_cmp_ps(_mm256_mul_ps(sumlx[g], sumlx[g]),
                                            _mm256_mul_ps(best[g], suml2[g]), _CMP_GT_OQ));
            if (_mm256_movemask_ps(better) == 0) {
                continue;
            }
            for (int i = 0; i < kSub; ++i) {
                best_levels[i][g] = _mm256_blendv_ps(best_levels[i][g], l[i][g], better);
            }
            scale[g] = _mm256_blendv_ps(scale[g], _mm256_div_ps(sumlx[g], suml2[g]), better);
            best[g] = _mm256_blendv_ps(best[g], _mm256_mul_ps(scale[g], sumlx[g]), better);
        }
    }
    const __m256 offset = _mm256_set1_ps(float(kNmax));
    for (int g = 0; g < G; ++g) {
        _mm256_storeu_ps(fit[g].scale, _mm256_blendv_ps(scale[g], zero, all_zero[g]));
        for (int i = 0; i < kSub; ++i) {
            const __m256 level =
                _mm256_andnot_ps(all_zero[g], _mm256_add_ps(best_levels[i][g], offset));
            _mm256_storeu_si256((__m256i*)fit[g].levels[i], _mm256_cvttps_epi32(level));
        }
    }
}

void pack_q6_k(const int8_t* levels, uint8_t* out) {
    uint8_t* ql = out;
    uint8_t* qh = out + 128;
    for (int j = 0; j < kSuperBlock; j += 128, ql += 64, qh += 32) {
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
    fit_signed(x, fits);
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
    if (max_abs_scale < kAllZeroBound) {
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
    int8_t levels[kSuperBlock];
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
    for (int64_t b = 0; b < blocks; ++b, x += kSuperBlock, out += 210) {
        if (all_finite(x, kSuperBlock)) {
            encode_q6_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q6_K, x, out, kSuperBlock);
        }
    }
}
#endif

}  // namespace tevrin
