#include "fuse/fast_decode.h"

#include <ggml.h>

#include <cstring>

#include "blend/cpu_features.h"
#include "fuse/fast_encode_blocks.h"

namespace tevrin {
namespace {

#if defined(__x86_64__)
TEVRIN_AVX2 float half_at(const uint8_t* at) {
    uint16_t half = 0;
    std::memcpy(&half, at, sizeof half);
    return half_value(half);
}

TEVRIN_AVX2 __m256 floats_of(__m128i bytes) {
    return _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(bytes));
}

// out[0, 32) := the 32 signed bytes of q times `scale` (the first 16) and `next`
// (the other 16).
TEVRIN_AVX2 void store_scaled(__m256i q, float scale, float next, float* out) {
    const __m128i lo = _mm256_castsi256_si128(q);
    const __m128i hi = _mm256_extracti128_si256(q, 1);
    const __m256 a = _mm256_set1_ps(scale);
    const __m256 b = _mm256_set1_ps(next);
    _mm256_storeu_ps(out + 0, _mm256_mul_ps(a, floats_of(lo)));
    _mm256_storeu_ps(out + 8, _mm256_mul_ps(a, floats_of(_mm_srli_si128(lo, 8))));
    _mm256_storeu_ps(out + 16, _mm256_mul_ps(b, floats_of(hi)));
    _mm256_storeu_ps(out + 24, _mm256_mul_ps(b, floats_of(_mm_srli_si128(hi, 8))));
}

// The same with an offset taken off each product: out := scale * q - min.
TEVRIN_AVX2 void store_scaled_less(__m256i q, const float (&scale)[2], const float (&min)[2],
                                   float* out) {
    const __m128i half[2] = {_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1)};
    for (int h = 0; h < 2; ++h) {
        const __m256 s = _mm256_set1_ps(scale[h]);
        const __m256 m = _mm256_set1_ps(min[h]);
        _mm256_storeu_ps(out + 16 * h, _mm256_sub_ps(_mm256_mul_ps(s, floats_of(half[h])), m));
        _mm256_storeu_ps(out + 16 * h + 8,
                         _mm256_sub_ps(_mm256_mul_ps(s, floats_of(_mm_srli_si128(half[h], 8))), m));
    }
}

TEVRIN_AVX2 __m256i load32(const uint8_t* at) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

// Bits [shift, shift + 2) of every byte.
TEVRIN_AVX2 __m256i two_bits(__m256i bytes, int shift) {
    return _mm256_and_si256(_mm256_srli_epi16(bytes, shift), _mm256_set1_epi8(3));
}

// A q6_k super-block: 128 bytes of low nibbles, 64 of high bit pairs, 16 signed
// scales, the half d. Element p of each half of 128 is
// (low nibble | high pair << 4) - 32, scaled by d * scales[p / 16].
__attribute__((target("avx2,f16c"))) void decode_q6_k_avx2(const uint8_t* x, float* y,
                                                           int64_t blocks) {
    const __m256i nibble = _mm256_set1_epi8(0x0f);
    const __m256i bias = _mm256_set1_epi8(32);
    for (int64_t b = 0; b < blocks; ++b, x += 210, y += kSuperBlock) {
        const auto* scales = reinterpret_cast<const int8_t*>(x + 192);
        const float d = half_at(x + 208);
        for (int n = 0; n < 2; ++n) {
            const __m256i l0 = load32(x + 64 * n);
            const __m256i l1 = load32(x + 64 * n + 32);
            const __m256i h = load32(x + 128 + 32 * n);
            const __m256i q[4] = {
                _mm256_or_si256(_mm256_and_si256(l0, nibble), _mm256_slli_epi16(two_bits(h, 0), 4)),
                _mm256_or_si256(_mm256_and_si256(l1, nibble), _mm256_slli_epi16(two_bits(h, 2), 4)),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l0, 4), nibble),
                                _mm256_slli_epi16(two_bits(h, 4), 4)),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l1, 4), nibble),
                                _mm256_slli_epi16(two_bits(h, 6), 4)),
            };
            const int8_t* sc = scales + 8 * n;
            for (int k = 0; k < 4; ++k) {
                store_scaled(_mm256_sub_epi8(q[k], bias), d * float(sc[2 * k]),
                             d * float(sc[2 * k + 1]), y + 128 * n + 32 * k);
            }
        }
    }
}

// A q2_k super-block: 16 scale bytes (scale in the low nibble, min in the high),
// 64 bytes of 2-bit quants, the halves d and dmin. Byte l of quarter n holds the
// elements 128n + 32j + l (l < 32) in bits [2j, 2j + 2); each run of 16 takes
// the next scale byte.
__attribute__((target("avx2,f16c"))) void decode_q2_k_avx2(const uint8_t* x, float* y,
                                                           int64_t blocks) {
    for (int64_t b = 0; b < blocks; ++b, x += 84, y += kSuperBlock) {
        const float d = half_at(x + 80);
        const float dmin = half_at(x + 82);
        for (int n = 0; n < 2; ++n) {
            const __m256i q = load32(x + 16 + 32 * n);
            for (int j = 0; j < 4; ++j) {
                const uint8_t* sc = x + 8 * n + 2 * j;
                const float scale[2] = {d * float(sc[0] & 0xf), d * float(sc[1] & 0xf)};
                const float min[2] = {dmin * float(sc[0] >> 4), dmin * float(sc[1] >> 4)};
                store_scaled_less(two_bits(q, 2 * j), scale, min, y + 128 * n + 32 * j);
            }
        }
    }
}

// The 16 scales of a q3_k super-block, 6 bits each, less 32: the low nibbles
// are those of bytes 0-7 and then their high nibbles; the top two bits of scale
// i are bits [2 (i / 4), 2 (i / 4) + 2) of byte 8 + i % 4.
void q3_k_scales(const uint8_t* packed, int (&scales)[16]) {
    for (int i = 0; i < 16; ++i) {
        const int low = i < 8 ? packed[i] & 0xf : packed[i - 8] >> 4;
        const int high = (packed[8 + i % 4] >> (2 * (i / 4))) & 3;
        scales[i] = (low | high << 4) - 32;
    }
}

// A q3_k super-block: 32 bytes of high bits, 64 of 2-bit quants, 12 of packed
// scales, the half d. Element 128n + 32j + l takes bits [2j, 2j + 2) of quant
// byte 32n + l, less 4 where bit 4n + j of high byte l is clear; each run of 16
// takes the next scale.
__attribute__((target("avx2,f16c"))) void decode_q3_k_avx2(const uint8_t* x, float* y,
                                                           int64_t blocks) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i four = _mm256_set1_epi8(4);
    for (int64_t b = 0; b < blocks; ++b, x += 110, y += kSuperBlock) {
        int scales[16];
        q3_k_scales(x + 96, scales);
        const float d = half_at(x + 108);
        const __m256i high = load32(x);
        for (int n = 0; n < 2; ++n) {
            const __m256i q = load32(x + 32 + 32 * n);
            for (int j = 0; j < 4; ++j) {
                const __m256i bit = _mm256_set1_epi8(char(1 << (4 * n + j)));
                const __m256i clear = _mm256_cmpeq_epi8(_mm256_and_si256(high, bit), zero);
                const __m256i value =
                    _mm256_sub_epi8(two_bits(q, 2 * j), _mm256_and_si256(clear, four));
                const int* sc = scales + 8 * n + 2 * j;
                store_scaled(value, d * float(sc[0]), d * float(sc[1]), y + 128 * n + 32 * j);
            }
        }
    }
}
#endif

using BlockDecoder = void (*)(const uint8_t*, float*, int64_t);

BlockDecoder fast_decoder(int32_t type) {
#if defined(__x86_64__)
    switch (ggml_type(type)) {
        case GGML_TYPE_Q6_K:
            return decode_q6_k_avx2;
        case GGML_TYPE_Q2_K:
            return decode_q2_k_avx2;
        case GGML_TYPE_Q3_K:
            return decode_q3_k_avx2;
        default:
            break;
    }
#endif
    (void)type;
    return nullptr;
}

}  // namespace

bool decode_rows_fast(int32_t type, const uint8_t* src, float* dst, int64_t count, VectorUse use) {
    const BlockDecoder decode = fast_decoder(type);
    if (use == VectorUse::never || decode == nullptr || !cpu_features().avx2 ||
        !cpu_features().f16c || count < 0 || count % kSuperBlock != 0) {
        return false;
    }
    decode(src, dst, count / kSuperBlock);
    return true;
}

}  // namespace tevrin
