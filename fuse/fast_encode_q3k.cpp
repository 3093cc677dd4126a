// q3_k in AVX2. A super-block of 256 has sixteen sub-blocks of 16. The signed
// level search of each sub-block (levels from the largest magnitude, then up to
// five sweeps that move one level at a time while the weighted fit improves)
// runs for eight sub-blocks at once, lane j holding one sub-block and updating
// its sums element by element in the base library's order. The 6-bit scales,
// the final levels and the packing follow as in the library.
#include <cmath>

#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int kSub = 16;
constexpr int kNmax = 4;
constexpr int kSweeps = 5;
constexpr int kMaxGroups = 4;  // groups of eight sub-blocks: two super-blocks

struct SignedFit {
    float scale[8];
    int32_t levels[kSub][8];  // 0 to 7
};

// A sub-block's elements and the products its sums reuse, one lane each.
struct SweepInput {
    __m256 x[kSub][kMaxGroups];
    __m256 w[kSub][kMaxGroups];   // x * x
    __m256 wx[kSub][kMaxGroups];  // x * x * x, the first product of the library's w*x*l
};

TEVRIN_AVX2 __m256 clamped_level(__m256 value) {
    return _mm256_cvtepi32_ps(clamp8(nearest_int8(value), -kNmax, kNmax - 1));
}

// One sweep over the elements in order, for the groups of `moving` (bit g for
// group g): each lane tries the level its other elements' sums suggest and
// keeps it when the fit improves. Returns the groups where a lane changed a
// level. A lane that changes none stays as it is in later sweeps, as the
// library's loop, which stops there, would leave it; so only a group that moved
// needs another sweep. Every sum is a chain of dependent steps, element after
// element; the groups' chains are independent and overlap.
template <int Groups>
TEVRIN_AVX2 int sweep(const SweepInput& in, __m256 (*l)[kMaxGroups], __m256* sumlx, __m256* suml2,
                      int moving) {
    const __m256 zero = _mm256_setzero_ps();
    __m256 changed[kMaxGroups] = {zero, zero, zero, zero};
    for (int i = 0; i < kSub; ++i) {
#pragma GCC unroll 4
        for (int g = 0; g < Groups; ++g) {
            if ((moving >> g & 1) == 0) {
                continue;
            }
            const __m256 old = l[i][g];
            const __m256 slx_without = _mm256_sub_ps(sumlx[g], _mm256_mul_ps(in.wx[i][g], old));
            const __m256 sl2_without =
                _mm256_sub_ps(suml2[g], _mm256_mul_ps(_mm256_mul_ps(in.w[i][g], old), old));
            const __m256 level =
                clamped_level(_mm256_div_ps(_mm256_mul_ps(in.x[i][g], sl2_without), slx_without));
            const __m256 slx = _mm256_add_ps(slx_without, _mm256_mul_ps(in.wx[i][g], level));
            const __m256 sl2 =
                _mm256_add_ps(sl2_without, _mm256_mul_ps(_mm256_mul_ps(in.w[i][g], level), level));
            const __m256 new_fit = _mm256_mul_ps(_mm256_mul_ps(slx, slx), suml2[g]);
            const __m256 old_fit = _mm256_mul_ps(_mm256_mul_ps(sumlx[g], sumlx[g]), sl2);
            const __m256 take =
                _mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(slx_without, zero, _CMP_GT_OQ),
                                            _mm256_cmp_ps(level, old, _CMP_NEQ_OQ)),
                              _mm256_and_ps(_mm256_cmp_ps(sl2, zero, _CMP_GT_OQ),
                                            _mm256_cmp_ps(new_fit, old_fit, _CMP_GT_OQ)));
            l[i][g] = _mm256_blendv_ps(old, level, take);
            sumlx[g] = _mm256_blendv_ps(sumlx[g], slx, take);
            suml2[g] = _mm256_blendv_ps(suml2[g], sl2, take);
            changed[g] = _mm256_or_ps(changed[g], take);
        }
    }
    int moved = 0;
    for (int g = 0; g < Groups; ++g) {
        moved |= int(_mm256_movemask_ps(changed[g]) != 0) << g;
    }
    return moved;
}

// The library's signed level search for the sub-blocks of Groups / 2 super-blocks
// laid end to end, group g holding the eight sub-blocks from x + 128 g.
// Levels are kept as floats (small whole numbers, exact), the form the sums use.
template <int Groups>
TEVRIN_AVX2 void fit_signed(const float* x, SignedFit* fit) {
    const __m256i lanes = _mm256_setr_epi32(0, 16, 32, 48, 64, 80, 96, 112);
    const __m256 zero = _mm256_setzero_ps();
    SweepInput in;
    __m256 all_zero[kMaxGroups], sumlx[kMaxGroups], suml2[kMaxGroups];
    __m256 l[kSub][kMaxGroups];
    for (int g = 0; g < Groups; ++g) {
        __m256 amax = zero;
        __m256 max = zero;
        for (int i = 0; i < kSub; ++i) {
            const __m256 v = _mm256_i32gather_ps(x + 128 * g + i, lanes, 4);
            in.x[i][g] = v;
            in.w[i][g] = _mm256_mul_ps(v, v);
            in.wx[i][g] = _mm256_mul_ps(in.w[i][g], v);
            const __m256 ax = abs8(v);
            const __m256 larger = _mm256_cmp_ps(ax, amax, _CMP_GT_OQ);
            amax = _mm256_blendv_ps(amax, ax, larger);
            max = _mm256_blendv_ps(max, v, larger);
        }
        all_zero[g] = _mm256_cmp_ps(amax, _mm256_set1_ps(kAllZeroBound), _CMP_LT_OQ);
        const __m256 iscale = _mm256_div_ps(_mm256_set1_ps(float(-kNmax)), max);
        sumlx[g] = zero;
        suml2[g] = zero;
        for (int i = 0; i < kSub; ++i) {
            const __m256 level = clamped_level(_mm256_mul_ps(iscale, in.x[i][g]));
            l[i][g] = level;
            sumlx[g] = _mm256_add_ps(sumlx[g], _mm256_mul_ps(in.wx[i][g], level));
            suml2[g] =
                _mm256_add_ps(suml2[g], _mm256_mul_ps(_mm256_mul_ps(in.w[i][g], level), level));
        }
    }
    for (int s = 0, moving = (1 << Groups) - 1; s < kSweeps && moving != 0; ++s) {
        moving = sweep<Groups>(in, l, sumlx, suml2, moving);
    }
    const __m256 offset = _mm256_set1_ps(float(kNmax));
    for (int g = 0; g < Groups; ++g) {
        // `suml2 > 0 ? sumlx / suml2 : 0`; an all-zero sub-block has scale and levels 0
        const __m256 positive = _mm256_cmp_ps(suml2[g], zero, _CMP_GT_OQ);
        const __m256 scale = _mm256_and_ps(_mm256_div_ps(sumlx[g], suml2[g]), positive);
        _mm256_storeu_ps(fit[g].scale, _mm256_andnot_ps(all_zero[g], scale));
        for (int i = 0; i < kSub; ++i) {
            const __m256 level = _mm256_andnot_ps(all_zero[g], _mm256_add_ps(l[i][g], offset));
            _mm256_storeu_si256((__m256i*)fit[g].levels[i], _mm256_cvttps_epi32(level));
        }
    }
}

// The 6-bit scales of the sub-blocks, each less 32, stored as the library
// stores them: the low four bits in bytes 0-7 (sub-blocks 8-15 in the high
// half), the top two in bytes 8-11.
void store_scales(const int* scales, uint8_t* out) {
    std::memset(out, 0, 12);
    for (int j = 0; j < 16; ++j) {
        const int l = scales[j] + 32;
        if (j < 8) {
            out[j] = uint8_t(l & 0xF);
        } else {
            out[j - 8] = uint8_t(out[j - 8] | ((l & 0xF) << 4));
        }
        out[j % 4 + 8] = uint8_t(out[j % 4 + 8] | ((l >> 4) << (2 * (j / 4))));
    }
}

// Levels 0 to 7: bit 2 into the high-bit mask (element j at bit j / 32 of byte
// j % 32), the low two bits four to a byte (elements l, l + 32, l + 64 and
// l + 96 of each half). A level keeps to its byte under the shifts by 16-bit lanes.
TEVRIN_AVX2 void pack_q3_k(const int8_t* levels, uint8_t* out) {
    const __m256i three = _mm256_set1_epi8(3);
    __m256i hmask = _mm256_setzero_si256();
    __m256i low[8];
    for (int k = 0; k < 8; ++k) {
        const __m256i v = _mm256_loadu_si256((const __m256i*)(levels + 32 * k));
        const __m256i high = _mm256_cmpgt_epi8(v, three);
        hmask = _mm256_or_si256(hmask, _mm256_and_si256(high, _mm256_set1_epi8(char(1 << k))));
        low[k] = _mm256_and_si256(v, three);
    }
    _mm256_storeu_si256((__m256i*)out, hmask);
    for (int half = 0; half < 2; ++half) {
        const __m256i* q = low + 4 * half;
        const __m256i packed = _mm256_or_si256(
            _mm256_or_si256(q[0], _mm256_slli_epi16(q[1], 2)),
            _mm256_or_si256(_mm256_slli_epi16(q[2], 4), _mm256_slli_epi16(q[3], 6)));
        _mm256_storeu_si256((__m256i*)(out + 32 + 32 * half), packed);
    }
}

// The scales, final levels and packing of one super-block from its two groups' fits.
TEVRIN_AVX2 void encode_q3_k_super(const float* x, const SignedFit* fits, uint8_t* out) {
    float max_scale = 0;
    float max_abs_scale = 0;
    for (int j = 0; j < 16; ++j) {
        const float scale = fits[j / 8].scale[j % 8];
        if (std::fabs(scale) > max_abs_scale) {
            max_abs_scale = std::fabs(scale);
            max_scale = scale;
        }
    }
    int scales[16] = {};
    uint16_t d_half = half_bits(0.f);
    if (max_scale != 0.0f) {
        const float iscale = -32.f / max_scale;
        for (int j = 0; j < 16; ++j) {
            // The library narrows to 8 bits before it clamps.
            const int s = int8_t(nearest_int(iscale * fits[j / 8].scale[j % 8]));
            scales[j] = s < -32 ? -32 : s > 31 ? 31 : s;
        }
        d_half = half_bits(1 / iscale);
        store_scales(scales, out + 96);
    } else {
        std::memset(out + 96, 0, 12);  // every level then stays as the search left it
    }
    const float d_all = half_value(d_half);
    int8_t levels[kSuperBlock];
    for (int j = 0; j < 16; ++j) {
        const float d = d_all * float(scales[j]);
        int8_t* dest = levels + kSub * j;
        if (d == 0.0f) {
            for (int i = 0; i < kSub; ++i) {
                dest[i] = int8_t(fits[j / 8].levels[i][j % 8]);
            }
            continue;
        }
        const __m256 dv = _mm256_set1_ps(d);
        __m256i level[2];
        for (int k = 0; k < 2; ++k) {
            const __m256 v = _mm256_div_ps(_mm256_loadu_ps(x + kSub * j + 8 * k), dv);
            level[k] = _mm256_add_epi32(clamp8(nearest_int8(v), -kNmax, kNmax - 1),
                                        _mm256_set1_epi32(kNmax));
        }
        // Sixteen levels of 0 to 7 narrowed to bytes, in order.
        const __m256i halves =
            _mm256_permute4x64_epi64(_mm256_packs_epi32(level[0], level[1]), 0xD8);
        _mm_storeu_si128((__m128i*)dest, _mm_packs_epi16(_mm256_castsi256_si128(halves),
                                                         _mm256_extracti128_si256(halves, 1)));
    }
    pack_q3_k(levels, out);
    store_half(out + 108, d_half);
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q3_k_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    SignedFit fits[kMaxGroups];
    for (int64_t b = 0; b < blocks;) {
        // Two super-blocks at a time where both are finite: twice the chains.
        if (b + 1 < blocks && all_finite(x, 2 * kSuperBlock)) {
            fit_signed<4>(x, fits);
            encode_q3_k_super(x, fits, out);
            encode_q3_k_super(x + kSuperBlock, fits + 2, out + 110);
            b += 2, x += 2 * kSuperBlock, out += 2 * 110;
            continue;
        }
        if (all_finite(x, kSuperBlock)) {
            fit_signed<2>(x, fits);
            encode_q3_k_super(x, fits, out);
        } else {
            encode_block_with_library(GGML_TYPE_Q3_K, x, out, kSuperBlock);
        }
        b += 1, x += kSuperBlock, out += 110;
    }
}
#endif

}  // namespace tevrin
