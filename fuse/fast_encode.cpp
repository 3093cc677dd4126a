#include "fuse/fast_encode.h"

#include <ggml.h>

#include "blend/cpu_features.h"
#include "fuse/fast_encode_blocks.h"

namespace tevrin {

namespace {

using BlockEncoder = void (*)(const float*, uint8_t*, int64_t);

struct FastType {
    BlockEncoder encode;
    int64_t block;  // elements per block
};

// The vector copies need AVX2 and F16C.
bool cpu_has_vector_encoders() {
    return cpu_features().avx2 && cpu_features().f16c;
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
