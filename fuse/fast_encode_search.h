// The scale and minimum search of the k-quants that store both per sub-block
// (q2_k, q4_k, q5_k), for eight sub-blocks at once: lane j of every vector holds
// sub-block j, and each lane runs the base library's steps for its sub-block in
// the library's order (weights, sums, the trial scales, the error of each).
// Internal to fuse/; AVX2 and F16C only, like the encoders that include it.
#pragma once

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
constexpr int kLongestSub = 32;  // elements of the longest sub-block

struct SearchShape {
    int nmax;
    float rmin;
    float rdelta;
    int nstep;
};

// How a type weighs and measures: q4_k and q5_k weigh each element by the
// sub-block's root mean square plus its magnitude and sum squared errors over 32;
// q2_k weighs by the magnitude alone and sums absolute errors over 16.
template <int N>
constexpr bool kAbsoluteError = N == 16;

struct SubBlockFit {
    float scale[8];
    float min[8];                    // the minimum as stored: zero or above
    int32_t levels[kLongestSub][8];  // [element][sub-block]
};

// G groups run side by side: every sum is a chain of N dependent adds,
// and independent chains keep the adder busy. Each chain is still one lane's
// sum in the library's order.
template <int G>
struct Lanes {
    __m256 v[G];
};

// Levels are kept as floats (small whole numbers, exact), the form the sums use.
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
            best_levels[i][g] = level_of(xt[i][g], iscale.v[g], min.v[g], nmax);
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
                const __m256 l = level_of(xt[i][g], iscale.v[g], min.v[g], nmax);
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
#endif

}  // namespace tevrin
