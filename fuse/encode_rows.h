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

// Importance weights of a tensor's rows: one list of row-length values per
// matrix of `rows_per_matrix` consecutive rows (an expert tensor has one matrix
// per expert, a plain one a single matrix). `values` null: none.
struct RowImportance {
    const float* values = nullptr;
    int64_t rows_per_matrix = 1;
};

// The types ggml_quantize_chunk makes; without importance weights it would abort
// for iq2_xxs, iq2_xs and iq1_s, so those count only `with_importance`.
bool encodable_type(int32_t type, bool with_importance = false);

// Fails with "cannot quantize to type <type>" when the type is not encodable.
void check_encodable(int32_t type, bool with_importance = false);

// Encodes `rows` rows of `row_len` floats, `row_bytes` bytes each in the output;
// `first_row` is the tensor row of the first, which picks the importance list.
// Precondition: check_encodable passed. Fails, for the grid-searched types
// (iq1, iq2 and iq3), with "cannot quantize to type <type>: value out of range"
// for a NaN or a value beyond 1e9 in magnitude.
void encode_rows(int32_t out_type, const float* src, uint8_t* dest, int64_t rows, int64_t row_len,
                 size_t row_bytes, int64_t first_row = 0, const RowImportance& importance = {});

}  // namespace tevrin
