#include "fuse/decode_rows.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include <ggml.h>

#include "fuse/f16_rows.h"
#include "fuse/fast_decode.h"

namespace tevrin {

void check_decodable(int32_t type) {
    const ggml_type t = ggml_type(type);
    if (t != GGML_TYPE_F32 && ggml_get_type_traits(t)->to_float == nullptr) {
        throw std::runtime_error(std::string("cannot dequantize type ") + ggml_type_name(t));
    }
}

void decode_source_rows(const SourceModel& source, int64_t index, int64_t first_row, int64_t rows,
                        int64_t row_len, float* dest) {
    const ggml_type type = ggml_type(tensor_type(source, index));
    const size_t row_bytes = ggml_row_size(type, row_len);
    const uint8_t* row = tensor_data(source, index) + size_t(first_row) * row_bytes;
    if (decode_rows_fast(type, row, dest, rows * row_len)) {  // rows lie end to end
        return;
    }
    for (int64_t r = 0; r < rows; ++r, row += row_bytes, dest += row_len) {
        if (type == GGML_TYPE_F32) {
            std::memcpy(dest, row, size_t(row_len) * sizeof(float));
        } else if (type == GGML_TYPE_F16) {
            f16_row_to_floats(row, dest, row_len);
        } else {
            ggml_get_type_traits(type)->to_float(row, dest, row_len);
        }
    }
}

}  // namespace tevrin
