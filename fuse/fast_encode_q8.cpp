// q8_0 in AVX2: one block of 32 per step, the scale from the largest magnitude
// and every value rounded half away from zero, as the base library does.
#include <cmath>

#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

namespace tevrin {

#if defined(__x86_64__)
namespace {

constexpr int64_t kBlock = 32;
constexpr int64_t kBlockBytes = 34;

// roundf: the truncated value moved one step away from zero when the cut-off
// part is at least a half. Both steps are exact for the magnitudes that reach it.
TEVRIN_AVX2 __m256i round_away(__m256 v) {
    const __m256 whole = _mm256_round_ps(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 part = abs8(_mm256_sub_ps(v, whole));
    const __m256 step = _mm256_or_ps(_mm256_set1_ps(1.0f), _mm256_and_ps(v, _mm256_set1_ps(-0.0f)));
    const __m256 up = _mm256_cmp_ps(part, _mm256_set1_ps(0.5f), _CMP_GE_OQ);
    return _mm256_cvttps_epi32(_mm256_add_ps(whole, _mm256_and_ps(up, step)));
}

TEVRIN_AVX2 float largest(__m256 v) {
    __m128 m = _mm_max_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    m = _mm_max_ps(m, _mm_movehl_ps(m, m));
    m = _mm_max_ss(m, _mm_shuffle_ps(m, m, 1));
    return _mm_cvtss_f32(m);
}

}  // namespace

__attribute__((target("avx2,f16c"))) void encode_q8_0_avx2(const float* x, uint8_t* out,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += kBlock, out += kBlockBytes) {
        if (!all_finite(x, kBlock)) {
            encode_block_with_library(GGML_TYPE_Q8_0, x, out, kBlock);
            continue;
        }
        __m256 v[4];
        __m256 amax = _mm256_setzero_ps();
        for (int k = 0; k < 4; ++k) {
            v[k] = _mm256_loadu_ps(x + 8 * k);
            amax = _mm256_max_ps(amax, abs8(v[k]));
        }
        // Without NaN the largest magnitude does not depend on the order.
        const float d = largest(amax) / 127;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        if (std::isinf(id)) {  // a subnormal scale: the scaled values leave int8
            encode_block_with_library(GGML_TYPE_Q8_0, x, out, kBlock);
            continue;
        }
        store_half(out, half_bits(d));
        const __m256 scale = _mm256_set1_ps(id);
        __m256i q[4];
        for (int k = 0; k < 4; ++k) {
            q[k] = round_away(_mm256_mul_ps(v[k], scale));
        }
        const __m256i packed =
            _mm256_packs_epi16(_mm256_packs_epi32(q[0], q[1]), _mm256_packs_epi32(q[2], q[3]));
        const __m256i ordered =
            _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
        _mm256_storeu_si256((__m256i*)(out + 2), ordered);
    }
}
#endif

}  // namespace tevrin
