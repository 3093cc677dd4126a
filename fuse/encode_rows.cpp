#include "fuse/encode_rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include <ggml.h>

#include "fuse/fast_encode.h"

namespace tevrin {
namespace {

// ggml quantizes these types by searching a grid of points; its search aborts the
// process when no point is nearer than the float maximum, which happens for NaN and
// for values from about 1e12 on (squares of squares overflow). Values within 1e9
// are safe; anything beyond fails the run instead.
bool grid_searched_type(int32_t type) {
    switch (ggml_type(type)) {
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ3_S:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ1_M:
        case GGML_TYPE_IQ2_XXS:
        case GGML_TYPE_IQ2_XS:
        case GGML_TYPE_IQ1_S:
            return true;
        default:
            return false;
    }
}

void check_grid_range(int32_t out_type, const float* src, int64_t count) {
    constexpr float kLargestGridValue = 1e9f;
    for (int64_t i = 0; i < count; ++i) {
        if (!(std::fabs(src[i]) <= kLargestGridValue)) {
            throw std::runtime_error(std::string("cannot quantize to type ") +
                                     ggml_type_name(ggml_type(out_type)) + ": value out of range");
        }
    }
}

}  // namespace

bool encodable_type(int32_t type, bool with_importance) {
    switch (ggml_type(type)) {
        case GGML_TYPE_IQ2_XXS:
        case GGML_TYPE_IQ2_XS:
        case GGML_TYPE_IQ1_S:
            return with_importance;
        case GGML_TYPE_F32:
        case GGML_TYPE_F16:
        case GGML_TYPE_BF16:
        case GGML_TYPE_Q4_0:
        case GGML_TYPE_Q4_1:
        case GGML_TYPE_Q5_0:
        case GGML_TYPE_Q5_1:
        case GGML_TYPE_Q8_0:
        case GGML_TYPE_Q2_K:
        case GGML_TYPE_Q3_K:
        case GGML_TYPE_Q4_K:
        case GGML_TYPE_Q5_K:
        case GGML_TYPE_Q6_K:
        case GGML_TYPE_TQ1_0:
        case GGML_TYPE_TQ2_0:
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ3_S:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ1_M:
        case GGML_TYPE_IQ4_NL:
        case GGML_TYPE_IQ4_XS:
        case GGML_TYPE_MXFP4:
            return !ggml_quantize_requires_imatrix(ggml_type(type));
        default:
            return false;
    }
}

void check_encodable(int32_t type, bool with_importance) {
    if (!encodable_type(type, with_importance)) {
        throw std::runtime_error(std::string("cannot quantize to type ") +
                                 ggml_type_name(ggml_type(type)));
    }
}

void encode_rows(int32_t out_type, const float* src, uint8_t* dest, int64_t rows, int64_t row_len,
                 size_t row_bytes, int64_t first_row, const RowImportance& importance) {
    if (grid_searched_type(out_type)) {
        check_grid_range(out_type, src, rows * row_len);
    }
    if (out_type == GGML_TYPE_F32) {
        std::memcpy(dest, src, size_t(rows) * row_bytes);
        return;
    }
    if (importance.values == nullptr) {
        if (!encode_rows_fast(out_type, src, dest, rows, row_len)) {
            ggml_quantize_chunk(ggml_type(out_type), src, dest, 0, rows, row_len, nullptr);
        }
        return;
    }
    // One call per stretch of rows that shares a matrix's list.
    for (int64_t done = 0; done < rows;) {
        const int64_t row = first_row + done;
        const int64_t matrix = row / importance.rows_per_matrix;
        const int64_t n = std::min(rows - done, (matrix + 1) * importance.rows_per_matrix - row);
        ggml_quantize_chunk(ggml_type(out_type), src + done * row_len,
                            dest + size_t(done) * row_bytes, 0, n, row_len,
                            importance.values + matrix * row_len);
        done += n;
    }
}

}  // namespace tevrin
