// q4_k and q5_k in AVX2: eight sub-blocks of 32 per super-block, searched all
// at once (fuse/fast_encode_search.h), two super-blocks side by side. What
// follows per super-block (6-bit scales, the final levels, packing) is short and
// runs as in the base library, the final levels again eight at a time.
#include <ggml.h>

#include "fuse/fast_encode_search.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int kSub = 32;  // elements of a sub-block
constexpr SearchShape kQ4Shape{15, -1.0f, 0.1f, 20};
constexpr SearchShape kQ5Shape{31, -0.5f, 0.1f, 15};

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
    uint8_t levels[kSuperBlock];
    final_levels(x, fit, s, kQ4Shape.nmax, levels);
    write_header(out, s);
    uint8_t* q = out + 16;
    for (int j = 0; j < kSuperBlock; j += 64, q += 32) {
        for (int l = 0; l < 32; ++l) {
            q[l] = uint8_t(levels[j + l] | (levels[j + l + 32] << 4));
        }
    }
}

TEVRIN_AVX2 void finish_q5_k(const float* x, const SubBlockFit& fit, uint8_t* out) {
    const SuperScales s = pack_scales(fit);
    uint8_t levels[kSuperBlock];
    final_levels(x, fit, s, kQ5Shape.nmax, levels);
    write_header(out, s);
    uint8_t* qh = out + 16;
    uint8_t* ql = out + 48;
    std::memset(qh, 0, 32);
    uint8_t m1 = 1;
    uint8_t m2 = 2;
    for (int n = 0; n < kSuperBlock; n += 64, ql += 32) {
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

template <int G, bool Five>
TEVRIN_AVX2 void encode_group(const float* x, uint8_t* out) {
    constexpr int64_t bytes = Five ? 176 : 144;
    const float* starts[G];
    for (int g = 0; g < G; ++g) {
        starts[g] = x + kSuperBlock * g;
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
        if (b + 1 < blocks && all_finite(x, 2 * kSuperBlock)) {
            encode_group<2, Five>(x, out);
            b += 2, x += 2 * kSuperBlock, out += 2 * bytes;
            continue;
        }
        if (all_finite(x, kSuperBlock)) {
            encode_group<1, Five>(x, out);
        } else {
            encode_block_with_library(Five ? GGML_TYPE_Q5_K : GGML_TYPE_Q4_K, x, out, kSuperBlock);
        }
        b += 1, x += kSuperBlock, out += bytes;
    }
}

}  // namespace

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
