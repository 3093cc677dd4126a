// The per-type block encoders behind encode_rows_fast and the few steps they
// share. Internal to fuse/: each encoder takes whole blocks laid end to end and
// must only run where the CPU has AVX2 and F16C (encode_rows_fast checks).
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tevrin {

inline constexpr int kSuperBlock = 256;  // elements of a k-quant super-block
// Below this a signed group's largest magnitude counts as zero (the library's bound).
inline constexpr float kAllZeroBound = 1e-15f;

void encode_q8_0_avx2(const float* x, uint8_t* out, int64_t blocks);
void encode_q2_k_avx2(const float* x, uint8_t* out, int64_t blocks);
void encode_q3_k_avx2(const float* x, uint8_t* out, int64_t blocks);
void encode_q4_k_avx2(const float* x, uint8_t* out, int64_t blocks);
void encode_q5_k_avx2(const float* x, uint8_t* out, int64_t blocks);
void encode_q6_k_avx2(const float* x, uint8_t* out, int64_t blocks);

// One block through the base library, for inputs the vector copies leave to it.
void encode_block_with_library(int32_t type, const float* x, uint8_t* out, int64_t elements);

// The base library's rounding: the float's integer part read from the mantissa
// after adding 1.5 * 2^23; exact for magnitudes up to 2^22.
inline int nearest_int(float value) {
    const float shifted = value + 12582912.0f;
    int32_t bits = 0;
    std::memcpy(&bits, &shifted, sizeof bits);
    return (bits & 0x007fffff) - 0x00400000;
}

inline void store_half(uint8_t* out, uint16_t half) {
    std::memcpy(out, &half, sizeof half);
}

#if defined(__x86_64__)
#define TEVRIN_AVX2 __attribute__((target("avx2,f16c"), always_inline)) inline

// Round to nearest even like the base library; a NaN becomes the quiet NaN of
// its sign, where the hardware would keep part of the payload.
TEVRIN_AVX2 uint16_t half_bits(float value) {
    if (value != value) {
        uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        return uint16_t(((bits >> 16) & 0x8000u) | 0x7e00u);
    }
    return uint16_t(_cvtss_sh(value, _MM_FROUND_TO_NEAREST_INT));
}

TEVRIN_AVX2 float half_value(uint16_t half) {
    return _cvtsh_ss(half);
}

TEVRIN_AVX2 __m256i nearest_int8(__m256 value) {
    const __m256i bits = _mm256_castps_si256(_mm256_add_ps(value, _mm256_set1_ps(12582912.0f)));
    return _mm256_sub_epi32(_mm256_and_si256(bits, _mm256_set1_epi32(0x007fffff)),
                            _mm256_set1_epi32(0x00400000));
}

TEVRIN_AVX2 __m256i clamp8(__m256i value, int lo, int hi) {
    return _mm256_max_epi32(_mm256_set1_epi32(lo), _mm256_min_epi32(_mm256_set1_epi32(hi), value));
}

TEVRIN_AVX2 __m256 abs8(__m256 value) {
    return _mm256_andnot_ps(_mm256_set1_ps(-0.0f), value);
}

// Whether all `count` floats (a multiple of 8) are finite.
TEVRIN_AVX2 bool all_finite(const float* x, int64_t count) {
    const __m256i exponent = _mm256_set1_epi32(0x7f800000);
    __m256i special = _mm256_setzero_si256();
    for (int64_t i = 0; i < count; i += 8) {
        const __m256i bits =
            _mm256_and_si256(_mm256_loadu_si256((const __m256i*)(x + i)), exponent);
        special = _mm256_or_si256(special, _mm256_cmpeq_epi32(bits, exponent));
    }
    return _mm256_testz_si256(special, special) != 0;
}
#endif

}  // namespace tevrin
