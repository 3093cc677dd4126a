// Vector encoders for the types most fusions write: q8_0, q2_k, q3_k, q4_k,
// q5_k and q6_k.
//
// Each gives exactly the bytes of ggml_quantize_chunk without an importance
// matrix. A vector lane runs, for one block or sub-block, the same single
// precision operations in the same order as the base library's scalar encoder,
// so the identity holds by construction. A block holding an infinity or a NaN is
// handed to the base library. The AVX2 copy is picked at first use where the CPU
// has AVX2 and F16C; elsewhere nothing is covered and the caller encodes as
// before. Safe to call from several threads at once.
#pragma once

#include <cstdint>

namespace tevrin {

enum class VectorUse {
    if_available,  // use the vector copy where the CPU has it
    never,         // cover nothing: the caller takes the base library's path
};

// Encodes `rows` rows of `row_len` floats into dst (rows laid end to end, as
// ggml_quantize_chunk writes them) and returns true; returns false, writing
// nothing, for a type, row length or CPU it does not cover.
bool encode_rows_fast(int32_t type, const float* src, void* dst, int64_t rows, int64_t row_len,
                      VectorUse use = VectorUse::if_available);

// Whether encode_rows_fast covers the type on this CPU.
bool fast_encode_covers(int32_t type);

}  // namespace tevrin
