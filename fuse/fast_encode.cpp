#include "fuse/fast_encode.h"

#include <ggml.h>

#include "fuse/fast_encode_blocks.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace tevrin {

namespace {

using BlockEncoder = void (*)(const float*, uint8_t*, int64_t);

struct FastType {
    BlockEncoder encode;
    int64_t block;  // elements per block
};

// The vector copies need AVX2 and F16C; F16C is read from CPUID because clang 14
// does not know its name in __builtin_cpu_supports.
bool cpu_has_vector_encoders() {
#if defined(__x86_64__)
    static const bool has = [] {
        __builtin_cpu_init();
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        return __builtin_cpu_supports("avx2") && __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 &&
               (ecx & bit_F16C) != 0;
    }();
    return has;
#else
    return false;
#endif
}

FastType fast_type(int32_t type) {
#if defined(__x86_64__)
    switch (ggml_type(type)) {
        case GGML_TYPE_Q8_0:
            return {encode_q8_0_avx2, 32};
        case GGML_TYPE_Q2_K:
            return {encode_q2_k_avx2, 256};
        case GGML_TYPE_Q3_K:
            return {encode_q3_k_avx2, 256};
        case GGML_TYPE_Q4_K:
            return {encode_q4_k_avx2, 256};
        case GGML_TYPE_Q5_K:
            return {encode_q5_k_avx2, 256};
        case GGML_TYPE_Q6_K:
            return {encode_q6_k_avx2, 256};
        default:
            break;
    }
#endif
    (void)type;
    return {nullptr, 0};
}

}  // namespace

void encode_block_with_library(int32_t type, const float* x, uint8_t* out, int64_t elements) {
    ggml_quantize_chunk(ggml_type(type), x, out, 0, 1, elements, nullptr);
}

bool fast_encode_covers(int32_t type) {
    return cpu_has_vector_encoders() && fast_type(type).encode != nullptr;
}

bool encode_rows_fast(int32_t type, const float* src, void* dst, int64_t rows, int64_t row_len,
                      VectorUse use) {
    if (use == VectorUse::never || !fast_encode_covers(type) || rows < 0 || row_len <= 0) {
        return false;
    }
    const FastType fast = fast_type(type);
    if (row_len % fast.block != 0) {
        return false;
    }
    // The blocks of consecutive rows lie end to end, in the source as in the output.
    fast.encode(src, static_cast<uint8_t*>(dst), rows * (row_len / fast.block));
    return true;
}

}  // namespace tevrin
