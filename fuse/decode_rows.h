// Decoding of source rows to 32-bit floats, exactly as every fusion reads them:
// F32 copied, F16 by the project's own exact converter, q2_k, q3_k and q6_k by
// the vector decoders where the CPU has them (fuse/fast_decode.h), every other
// type by ggml's to_float.
//
// decode_source_rows only reads the source's mapping and writes `dest`; calls on
// disjoint destination ranges may run concurrently.
#pragma once

#include <cstdint>

#include "model/source_model.h"

namespace tevrin {

// Fails with "cannot dequantize type <type>" for a type ggml cannot decode.
void check_decodable(int32_t type);

// Decodes rows [first_row, first_row + rows) of tensor `index` of `source`, each
// `row_len` elements, into dest[0, rows * row_len). Precondition: check_decodable
// passed for the tensor's type, and the rows lie inside the tensor.
void decode_source_rows(const SourceModel& source, int64_t index, int64_t first_row, int64_t rows,
                        int64_t row_len, float* dest);

}  // namespace tevrin
