// q2_k, q4_k and q5_k in AVX2: the k-quants with a scale and a minimum per
// sub-block. Lane j of every vector holds one sub-block (of 32 for q4_k and q5_k,
// of 16 for q2_k), so the scale and minimum search (weights, sums, the 16 or 21
// trial scales, the error of each) runs for eight sub-blocks at once, each lane
// summing its own elements in the base library's order. What follows per
// super-block (the scales, the final levels, packing) is short and runs as in
// the library, the final levels again eight at a time.
#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int kSuper = 256;
constexpr int kSub = 32;  // elements of a q4_k or q5_k sub-block

struct SearchShape {
    int nmax;
    float rmin;
    float rdelta;
    int nstep;
};

constexpr SearchShape kQ2Shape{3, -0.5f, 0.1f, 15};
constexpr SearchShape kQ4Shape{15, -1.0f, 0.1f, 20};
constexpr SearchShape kQ5Shape{31, -0.5f, 0.1f, 15};

// How a type weighs and measures: q4_k and q5_k weigh each element by the
// sub-block's root mean square plus its magnitude and sum squared errors over 32;
// q2_k weighs by the magnitude alone and sums absolute errors over 16.
template <int N>
constexpr bool kAbsoluteError = N == 16;

struct SubBlockFit {
    float scale[8];
    float min[8];  // the minimum as stored: zero or above
    int32_t levels[kSub][8];
};

// G super-blocks run side by side: every sum is a chain of 32 dependent adds,
// and independent chains keep the adder busy. Each chain is still one lane's
// sum in the library's order.
template <int G>
struct Lanes {
    __m256 v[G];
};

// Levels are kept as floats (small whole numbers, exact), the form the sums use.
template <int G>
TEVRIN_AVX2 __m256 level_of(__m256 x, __m256 iscale, __m256 min, int nmax) {
    const __m256i l = clamp8(nearest_int8(_mm256_mul_ps(iscale, _mm256_sub_ps(x, min))), 0, nmax);
    return _mm256_cvtepi32_ps(l);
}

template <int G, int N>
TEVRIN_AVX2 Lanes<G> level_error(const __m256 (*xt)[G], const __m256 (*w)[G],
                                 const __m256 (*levels)[G], const Lanes<G>& scale,
                                 const Lanes<G>& min) {
    Lanes<G> error;
    for (int g = 0; g < G; ++g) {
        error.v[g] = _mm256_setzero_ps();
    }
    for (int i = 0; i < N; ++i) {
#pragma GCC unroll 4
        for (int g = 0; g < G; ++g) {
            const __m256 diff = _mm256_sub_ps(
                _mm256_add_ps(_mm256_mul_ps(scale.v[g], levels[i][g]), min.v[g]), xt[i][g]);
            const __m256 cost = kAbsoluteError<N> ? abs8(diff) : _mm256_mul_ps(diff, diff);
            error.v[g] = _mm256_add_ps(error.v[g], _mm256_mul_ps(w[i][g], cost));
        }
    }
    return error;
}

// The weighted scale and minimum search of the base library for G groups of
// eight sub-blocks of N elements, group g starting at x[g].
template <int G, int N>
TEVRIN_AVX2 void fit_sub_blocks(const float* const* x, const SearchShape& shape, SubBlockFit* fit) {
    const __m256i lanes =
        _mm256_mullo_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(N));
    const __m256 zero = _mm256_setzero_ps();
    const int nmax = shape.nmax;
    __m256 xt[N][G];
    __m256 w[N][G];
    Lanes<G> min, max, sum_w, sum_x, flat, first_min, iscale, scale;
    for (int g = 0; g < G; ++g) {
        __m256 sum_x2 = zero;
        for (int i = 0; i < N; ++i) {
            xt[i][g] = _mm256_i32gather_ps(x[g] + i, lanes, 4);
            sum_x2 = _mm256_add_ps(sum_x2, _mm256_mul_ps(xt[i][g], xt[i][g]));
        }
        if (kAbsoluteError<N>) {
            for (int i = 0; i < N; ++i) {
                w[i][g] = abs8(xt[i][g]);
            }
        } else {
            const __m256 av_x = _mm256_sqrt_ps(_mm256_div_ps(sum_x2, _mm256_set1_ps(float(N))));
            for (int i = 0; i < N; ++i) {
                w[i][g] = _mm256_add_ps(av_x, abs8(xt[i][g]));
            }
        }
        __m256 lo = xt[0][g];
        __m256 hi = xt[0][g];
        __m256 sw = w[0][g];
        __m256 sx = _mm256_mul_ps(sw, xt[0][g]);
        for (int i = 1; i < N; ++i) {
            lo = _mm256_min_ps(xt[i][g], lo);  // xt < lo ? xt : lo, as the library compares
            hi = _mm256_max_ps(xt[i][g], hi);
            sw = _mm256_add_ps(sw, w[i][g]);
            sx = _mm256_add_ps(sx, _mm256_mul_ps(w[i][g], xt[i][g]));
        }
        lo = _mm256_blendv_ps(lo, zero, _mm256_cmp_ps(lo, zero, _CMP_GT_OQ));
        min.v[g] = lo;
        max.v[g] = hi;
        sum_w.v[g] = sw;
        sum_x.v[g] = sx;
        flat.v[g] = _mm256_cmp_ps(hi, lo, _CMP_EQ_OQ);
        first_min.v[g] = lo;
        iscale.v[g] = _mm256_div_ps(_mm256_set1_ps(float(nmax)), _mm256_sub_ps(hi, lo));
        scale.v[g] = _mm256_div_ps(_mm256_set1_ps(1.0f), iscale.v[g]);
    }
    __m256 best_levels[N][G];
    for (int i = 0; i < N; ++i) {
        for (int g = 0; g < G; ++g) {
            best_levels[i][g] = level_of<G>(xt[i][g], iscale.v[g], min.v[g], nmax);
        }
    }
    Lanes<G> best_error = level_error<G, N>(xt, w, best_levels, scale, min);

    __m256 trial[N][G];
    for (int is = 0; is <= shape.nstep; ++is) {
        // Each trial scales from the best minimum found so far, as in the library.
        const __m256 numerator =
            _mm256_set1_ps(shape.rmin + shape.rdelta * float(is) + float(nmax));
        for (int g = 0; g < G; ++g) {
            iscale.v[g] = _mm256_div_ps(numerator, _mm256_sub_ps(max.v[g], min.v[g]));
        }
        Lanes<G> sum_l, sum_l2, sum_xl, this_scale, this_min;
        for (int g = 0; g < G; ++g) {
            sum_l.v[g] = sum_l2.v[g] = sum_xl.v[g] = zero;
        }
        for (int i = 0; i < N; ++i) {
#pragma GCC unroll 4
            for (int g = 0; g < G; ++g) {
                const __m256 l = level_of<G>(xt[i][g], iscale.v[g], min.v[g], nmax);
                trial[i][g] = l;
                const __m256 wl = _mm256_mul_ps(w[i][g], l);
                sum_l.v[g] = _mm256_add_ps(sum_l.v[g], wl);
                sum_l2.v[g] = _mm256_add_ps(sum_l2.v[g], _mm256_mul_ps(wl, l));
                sum_xl.v[g] = _mm256_add_ps(sum_xl.v[g], _mm256_mul_ps(wl, xt[i][g]));
            }
        }
        Lanes<G> det;
        for (int g = 0; g < G; ++g) {
            const __m256 sl = sum_l.v[g], sl2 = sum_l2.v[g], sxl = sum_xl.v[g];
            det.v[g] = _mm256_sub_ps(_mm256_mul_ps(sum_w.v[g], sl2), _mm256_mul_ps(sl, sl));
            __m256 ts = _mm256_div_ps(
                _mm256_sub_ps(_mm256_mul_ps(sum_w.v[g], sxl), _mm256_mul_ps(sum_x.v[g], sl)),
                det.v[g]);
            __m256 tm = _mm256_div_ps(
                _mm256_sub_ps(_mm256_mul_ps(sl2, sum_x.v[g]), _mm256_mul_ps(sl, sxl)), det.v[g]);
            const __m256 above = _mm256_cmp_ps(tm, zero, _CMP_GT_OQ);
            this_min.v[g] = _mm256_blendv_ps(tm, zero, above);
            this_scale.v[g] = _mm256_blendv_ps(ts, _mm256_div_ps(sxl, sl2), above);
        }
        const Lanes<G> error = level_error<G, N>(xt, w, trial, this_scale, this_min);
        for (int g = 0; g < G; ++g) {
            const __m256 better =
                _mm256_and_ps(_mm256_cmp_ps(det.v[g], zero, _CMP_GT_OQ),
                              _mm256_cmp_ps(error.v[g], best_error.v[g], _CMP_LT_OQ));
            if (_mm256_movemask_ps(better) == 0) {
                continue;
            }
            for (int i = 0; i < N; ++i) {
                best_levels[i][g] = _mm256_blendv_ps(best_levels[i][g], trial[i][g], better);
            }
            best_error.v[g] = _mm256_blendv_ps(best_error.v[g], error.v[g], better);
            scale.v[g] = _mm256_blendv_ps(scale.v[g], this_scale.v[g], better);
            min.v[g] = _mm256_blendv_ps(min.v[g], this_min.v[g], better);
        }
    }
    // A flat sub-block keeps level 0, scale 0 and its first minimum.
    for (int g = 0; g < G; ++g) {
        _mm256_storeu_ps(fit[g].scale, _mm256_blendv_ps(scale.v[g], zero, flat.v[g]));
        const __m256 kept_min = _mm256_blendv_ps(min.v[g], first_min.v[g], flat.v[g]);
        _mm256_storeu_ps(fit[g].min, _mm256_xor_ps(kept_min, _mm256_set1_ps(-0.0f)));
        for (int i = 0; i < N; ++i) {
            const __m256 kept = _mm256_andnot_ps(flat.v[g], best_levels[i][g]);
            _mm256_storeu_si256((__m256i*)fit[g].levels[i], _mm256_cvttps_epi32(kept));
        }
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

TEVRIN_AVX2 void finish_q4_k(const float* x, const SubBlockFit& fit, uint8_t* out) {
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

TEVRIN_AVX2 void finish_q5_k(const float* x, const SubBlockFit& fit, uint8_t* out) {
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

// q2_k: sixteen sub-blocks of 16, their scales and minimums in 4 bits each.
TEVRIN_AVX2 void encode_q2_k_super(const float* x, uint8_t* out) {
    constexpr int n = 16;
    const float* starts[2] = {x, x + kSuper / 2};
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
    uint8_t levels[kSuper];
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
    for (int j = 0; j < kSuper; j += 128) {
        for (int l = 0; l < 32; ++l) {
            qs[j / 4 + l] = uint8_t(levels[j + l] | (levels[j + l + 32] << 2) |
                                    (levels[j + l + 64] << 4) | (levels[j + l + 96] << 6));
        }
    }
    store_half(out + 80, d);
    store_half(out + 82, dmin);
}

template <int G, bool Five>
TEVRIN_AVX2 void encode_group(const float* x, uint8_t* out) {
    constexpr int64_t bytes = Five ? 176 : 144;
    const float* starts[G];
    for (int g = 0; g < G; ++g) {
        starts[g] = x + kSuper * g;
    }
    SubBlockFit fit[G];
    fit_sub_blocks<G, kSub>(starts, Five ? kQ5Shape : kQ4Shape, fit);
    for (int g = 0; g < G; ++g) {
        if (Five) {
            finish_q5_k(starts[g], fit[g], out + bytes * g);
        } else {
            finish_q4_k(starts[g], fit[g], out + bytes * g);
        }
    }
}

// Two super-blocks at a time where both are finite, else one.
template <bool Five>
TEVRIN_AVX2 void encode_k(const float* x, uint8_t* out, int64_t blocks) {
    constexpr int64_t bytes = Five ? 176 : 144;
    for (int64_t b = 0; b < blocks;) {
        if (b + 1 < blocks && all_finite(x, 2 * kSuper)) {
            encode_group<2, Five>(x, out);
            b += 2, x += 2 * kSuper, out += 2 * bytes;
            continue;
        }
        if (all_finite(x, kSuper)) {
            encode_group<1, Five>(x, out);
        } else {
            encode_block_with_library(Five ? GGML_TYPE_Q5_K : GGML_TYPE_Q4_K, x, out, kSuper);
        }
        b += 1, x += kSuper, out += bytes;
    }
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q2_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kSuper, out += 84) {
        if (all_finite(x, kSuper)) {
            encode_q2_k_super(x, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q2_K, x, out, kSuper);
        }
    }
}

__attribute__((target("avx2,f16c"))) void encode_q4_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    encode_k<false>(x, out, blocks);
}

__attribute__((target("avx2,f16c"))) void encode_q5_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    encode_k<true>(x, out, blocks);
}
#endif

}  // namespace tevrin
