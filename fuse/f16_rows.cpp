#include "fuse/f16_rows.h"

#include <ggml.h>

#include "blend/cpu_features.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tevrin {

namespace {

#if defined(__x86_64__)
__attribute__((target("f16c,avx"))) void f16c_row(const uint8_t* row, float* out, int64_t count) {
    const auto* half = reinterpret_cast<const uint16_t*>(row);
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i*>(half + i));
        _mm256_storeu_ps(out + i, _mm256_cvtph_ps(h));
    }
    for (; i < count; ++i) {
        out[i] = _cvtsh_ss(half[i]);
    }
}

#endif

}  // namespace

void f16_row_to_floats(const uint8_t* row, float* out, int64_t count) {
#if defined(__x86_64__)
    if (cpu_features().f16c) {
        f16c_row(row, out, count);
        return;
    }
#endif
    ggml_get_type_traits(GGML_TYPE_F16)->to_float(row, out, count);
}

}  // namespace tevrin
