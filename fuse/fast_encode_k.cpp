// q4_k and q5_k in AVX2. A super-block of 256 has eight sub-blocks of 32; lane j
// of every vector holds sub-block j, so the scale and minimum search (weights,
// sums, the 16 or 21 trial scales, the error of each) runs for all eight at once,
// each lane summing its own elements in the base library's order. What follows
// per super-block (6-bit scales, the final levels, packing) is short and runs as
// in the library, the final levels again eight at a time.
#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int kSuper = 256;
constexpr int kSub = 32;

struct SearchShape {
    int nmax;
    float rmin;
    float rdelta;
    int nstep;
};

constexpr SearchShape kQ4Shape{15, -1.0f, 0.1f, 20};
constexpr SearchShape kQ5Shape{31, -0.5f, 0.1f, 15};

struct SubBlockFit {
    float scale[8];
    float min[8];  // the minimum as stored: zero or above
    int32_t levels[kSub][8];
};

TEVRIN_AVX2 __m256 level_error(const __m256* xt, const __m256* w, const __m256i* levels,
                               __m256 scale, __m256 min) {
    __m256 error = _mm256_setzero_ps();
    for (int i = 0; i < kSub; ++i) {
        __m256 diff = _mm256_add_ps(_mm256_mul_ps(scale, _mm256_cvtepi32_ps(levels[i])), min);
        diff = _mm256_sub_ps(diff, xt[i]);
        error = _mm256_add_ps(error, _mm256_mul_ps(w[i], _mm256_mul_ps(diff, diff)));
    }
    return error;
}

TEVRIN_AVX2 void quantize_levels(const __m256* xt, __m256 iscale, __m256 min, int nmax,
                                 __m256i* levels) {
    for (int i = 0; i < kSub; ++i) {
        levels[i] = clamp8(nearest_int8(_mm256_mul_ps(iscale, _mm256_sub_ps(xt[i], min))), 0, nmax);
    }
}

// The weighted scale and minimum search of the base library for eight
// sub-blocks of 32 at once.
TEVRIN_AVX2 void fit_sub_blocks(const float* x, const SearchShape& shape, SubBlockFit& fit) {
    const __m256i lanes = _mm256_setr_epi32(0, 32, 64, 96, 128, 160, 192, 224);
    const __m256 zero = _mm256_setzero_ps();
    __m256 xt[kSub];
    __m256 w[kSub];
    __m256 sum_x2 = zero;
    for (int i = 0; i < kSub; ++i) {
        xt[i] = _mm256_i32gather_ps(x + i, lanes, 4);
        sum_x2 = _mm256_add_ps(sum_x2, _mm256_mul_ps(xt[i], xt[i]));
    }
    const __m256 av_x = _mm256_sqrt_ps(_mm256_div_ps(sum_x2, _mm256_set1_ps(32.0f)));
    for (int i = 0; i < kSub; ++i) {
        w[i] = _mm256_add_ps(av_x, abs8(xt[i]));
    }
    __m256 min = xt[0];
    __m256 max = xt[0];
    __m256 sum_w = w[0];
    __m256 sum_x = _mm256_mul_ps(sum_w, xt[0]);
    for (int i = 1; i < kSub; ++i) {
        min = _mm256_min_ps(xt[i], min);  // xt < min ? xt : min, as the library compares
        max = _mm256_max_ps(xt[i], max);
        sum_w = _mm256_add_ps(sum_w, w[i]);
        sum_x = _mm256_add_ps(sum_x, _mm256_mul_ps(w[i], xt[i]));
    }
    min = _mm256_blendv_ps(min, zero, _mm256_cmp_ps(min, zero, _CMP_GT_OQ));
    const __m256 flat = _mm256_cmp_ps(max, min, _CMP_EQ_OQ);
    const __m256 first_min = min;
    const int nmax = shape.nmax;

    // Each trial scales from the best minimum found so far, as in the library.
    __m256 iscale = _mm256_div_ps(_mm256_set1_ps(float(nmax)), _mm256_sub_ps(max, min));
    __m256 scale = _mm256_div_ps(_mm256_set1_ps(1.0f), iscale);
    __m256i best_levels[kSub];
    quantize_levels(xt, iscale, min, nmax, best_levels);
    __m256 best_error = level_error(xt, w, best_levels, scale, min);

    __m256i trial[kSub];
    for (int is = 0; is <= shape.nstep; ++is) {
        const float numerator = shape.rmin + shape.rdelta * float(is) + float(nmax);
        iscale = _mm256_div_ps(_mm256_set1_ps(numerator), _mm256_sub_ps(max, min));
        quantize_levels(xt, iscale, min, nmax, trial);
        __m256 sum_l = zero;
        __m256 sum_l2 = zero;
        __m256 sum_xl = zero;
        for (int i = 0; i < kSub; ++i) {
            const __m256 l = _mm256_cvtepi32_ps(trial[i]);
            const __m256 wl = _mm256_mul_ps(w[i], l);
            sum_l = _mm256_add_ps(sum_l, wl);
            sum_l2 = _mm256_add_ps(sum_l2, _mm256_mul_ps(wl, l));
            sum_xl = _mm256_add_ps(sum_xl, _mm256_mul_ps(wl, xt[i]));
        }
        const __m256 det = _mm256_sub_ps(_mm256_mul_ps(sum_w, sum_l2), _mm256_mul_ps(sum_l, sum_l));
        __m256 this_scale = _mm256_div_ps(
            _mm256_sub_ps(_mm256_mul_ps(sum_w, sum_xl), _mm256_mul_ps(sum_x, sum_l)), det);
        __m256 this_min = _mm256_div_ps(
            _mm256_sub_ps(_mm256_mul_ps(sum_l2, sum_x), _mm256_mul_ps(sum_l, sum_xl)), det);
        const __m256 above = _mm256_cmp_ps(this_min, zero, _CMP_GT_OQ);
        this_min = _mm256_blendv_ps(this_min, zero, above);
        this_scale = _mm256_blendv_ps(this_scale, _mm256_div_ps(sum_xl, sum_l2), above);
        const __m256 error = level_error(xt, w, trial, this_scale, this_min);
        const __m256 better = _mm256_and_ps(_mm256_cmp_ps(det, zero, _CMP_GT_OQ),
                                            _mm256_cmp_ps(error, best_error, _CMP_LT_OQ));
        if (_mm256_movemask_ps(better) == 0) {
            continue;
        }
        const __m256i take = _mm256_castps_si256(better);
        for (int i = 0; i < kSub; ++i) {
            best_levels[i] = _mm256_blendv_epi8(best_levels[i], trial[i], take);
        }
        best_error = _mm256_blendv_ps(best_error, error, better);
        scale = _mm256_blendv_ps(scale, this_scale, better);
        min = _mm256_blendv_ps(min, this_min, better);
    }
    // A flat sub-block keeps level 0, scale 0 and its first minimum.
    _mm256_storeu_ps(fit.scale, _mm256_blendv_ps(scale, zero, flat));
    min = _mm256_blendv_ps(min, first_min, flat);
    _mm256_storeu_ps(fit.min, _mm256_xor_ps(min, _mm256_set1_ps(-0.0f)));
    for (int i = 0; i < kSub; ++i) {
        const __m256i kept = _mm256_andnot_si256(_mm256_castps_si256(flat), best_levels[i]);
        _mm256_storeu_si256((__m256i*)fit.levels[i], kept);
    }
}

struct SuperScales {
    uint8_t packed[12];
    uint16_t d;
    uint16_t dmin;
    uint8_t sc[8];
    uint8_t m[8];
};

// The 6-bit scales and minimums of the eight sub-blocks and their two factors.
TEVRIN_AVX2 SuperScales pack_scales(const SubBlockFit& fit) {
    float max_scale = 0;
    float max_min = 0;
    for (int j = 0; j < 8; ++j) {
        if (fit.scale[j] > max_scale) {
            max_scale = fit.scale[j];
        }
        if (fit.min[j] > max_min) {
            max_min = fit.min[j];
        }
    }
    const float inv_scale = max_scale > 0 ? 63.f / max_scale : 0.f;
    const float inv_min = max_min > 0 ? 63.f / max_min : 0.f;
    SuperScales s{};
    for (int j = 0; j < 8; ++j) {
        uint8_t ls = uint8_t(nearest_int(inv_scale * fit.scale[j]));
        uint8_t lm = uint8_t(nearest_int(inv_min * fit.min[j]));
        ls = ls < 63 ? ls : 63;
        lm = lm < 63 ? lm : 63;
        s.sc[j] = ls;
        s.m[j] = lm;
        if (j < 4) {
            s.packed[j] = ls;
            s.packed[j + 4] = lm;
        } else {
            s.packed[j + 4] = uint8_t((ls & 0xF) | ((lm & 0xF) << 4));
            s.packed[j - 4] |= uint8_t((ls >> 4) << 6);
            s.packed[j] |= uint8_t((lm >> 4) << 6);
        }
    }
    s.d = half_bits(max_scale / 63.f);
    s.dmin = half_bits(max_min / 63.f);
    return s;
}

// Final levels with the stored factors; a sub-block whose factor is zero keeps
// the levels of its search.
TEVRIN_AVX2 void final_levels(const float* x, const SubBlockFit& fit, const SuperScales& s,
                              int nmax, uint8_t* levels) {
    const float d_all = half_value(s.d);
    const float dmin_all = half_value(s.dmin);
    for (int j = 0; j < 8; ++j) {
        const float d = d_all * s.sc[j];
        uint8_t* out = levels + kSub * j;
        if (d == 0.0f) {
            for (int i = 0; i < kSub; ++i) {
                out[i] = uint8_t(fit.levels[i][j]);
            }
            continue;
        }
        const __m256 dm = _mm256_set1_ps(dmin_all * s.m[j]);
        const __m256 dv = _mm256_set1_ps(d);
        alignas(32) int32_t q[kSub];
        for (int k = 0; k < kSub; k += 8) {
            const __m256 v =
                _mm256_div_ps(_mm256_add_ps(_mm256_loadu_ps(x + kSub * j + k), dm), dv);
            _mm256_store_si256((__m256i*)(q + k), clamp8(nearest_int8(v), 0, nmax));
        }
        for (int i = 0; i < kSub; ++i) {
            out[i] = uint8_t(q[i]);
        }
    }
}

void write_header(uint8_t* out, const SuperScales& s) {
    store_half(out, s.d);
    store_half(out + 2, s.dmin);
    std::memcpy(out + 4, s.packed, sizeof s.packed);
}

TEVRIN_AVX2 void encode_q4_k_super(const float* x, uint8_t* out) {
    SubBlockFit fit;
    fit_sub_blocks(x, kQ4Shape, fit);
    const SuperScales s = pack_scales(fit);
    uint8_t levels[kSuper];
    final_levels(x, fit, s, kQ4Shape.nmax, levels);
    write_header(out, s);
    uint8_t* q = out + 16;
    for (int j = 0; j < kSuper; j += 64, q += 32) {
        for (int l = 0; l < 32; ++l) {
            q[l] = uint8_t(levels[j + l] | (levels[j + l + 32] << 4));
        }
    }
}

TEVRIN_AVX2 void encode_q5_k_super(const float* x, uint8_t* out) {
    SubBlockFit fit;
    fit_sub_blocks(x, kQ5Shape, fit);
    const SuperScales s = pack_scales(fit);
    uint8_t levels[kSuper];
    final_levels(x, fit, s, kQ5Shape.nmax, levels);
    write_header(out, s);
    uint8_t* qh = out + 16;
    uint8_t* ql = out + 48;
    std::memset(qh, 0, 32);
    uint8_t m1 = 1;
    uint8_t m2 = 2;
    for (int n = 0; n < kSuper; n += 64, ql += 32) {
        for (int j = 0; j < 32; ++j) {
            int l1 = levels[n + j];
            int l2 = levels[n + j + 32];
            if (l1 > 15) {
                l1 -= 16;
                qh[j] |= m1;
            }
            if (l2 > 15) {
                l2 -= 16;
                qh[j] |= m2;
            }
            ql[j] = uint8_t(l1 | (l2 << 4));
        }
        m1 = uint8_t(m1 << 2);
        m2 = uint8_t(m2 << 2);
    }
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q4_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kSuper, out += 144) {
        if (all_finite(x, kSuper)) {
            encode_q4_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q4_K, x, out, kSuper);
        }
    }
}

__attribute__((target("avx2,f16c"))) void encode_q5_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kSuper, out += 176) {
        if (all_finite(x, kSuper)) {
            encode_q5_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q5_K, x, out, kSuper);
        }
    }
}
#endif

}  // namespace tevrin
