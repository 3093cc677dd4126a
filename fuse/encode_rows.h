// Encoding of blended float rows to an output tensor type: through the vector
// encoders where they cover the type (the same bytes), else through ggml's
// quantizer (F32 is copied).
//
// encode_rows reads `src` and writes `dest` only; calls on disjoint row ranges
// may run concurrently (ggml_quantize_chunk is safe so for these types).
#pragma once

#include <cstddef>
#include <cstdint>

namespace tevrin {

// The types ggml_quantize_chunk makes without an importance matrix; for any
// other it would abort.
bool encodable_type(int32_t type);

// Fails with "cannot quantize to type <type>" when the type is not encodable.
void check_encodable(int32_t type);

// Encodes `rows` rows of `row_len` floats, `row_bytes` bytes each in the output.
// Precondition: check_encodable passed. Fails, for the grid-searched types
// iq3_xxs, iq3_s, iq2_s and iq1_m, with "cannot quantize to type <type>: value
// out of range" for a NaN or a value beyond 1e9 in magnitude.
void encode_rows(int32_t out_type, const float* src, uint8_t* dest, int64_t rows, int64_t row_len,
                 size_t row_bytes);

}  // namespace tevrin
