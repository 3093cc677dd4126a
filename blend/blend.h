// The blend kernel: fuses a run of consecutive rows of one tensor.
//
// `sources` holds the first row of this call of each active source, in source
// order (entry 0 is the base, at most 8 entries). `first_row` is the number of the
// call's first row within the tensor. The result for a row depends only on the
// arguments and the row's number, never on how rows are cut into calls; all scratch
// memory and random state are local to the call, so calls may run concurrently.
// Arithmetic is IEEE single precision rounded at each step (double only where a
// method needs it), with no fused multiply-add.
//
// Threads: blend_rows keeps no state between calls; calls on disjoint outputs may
// run concurrently.
#pragma once

#include <cstdint>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

void blend_rows(const MethodSpec& spec, uint64_t seed, int64_t first_row,
                const std::vector<const float*>& sources, float* out, int64_t rows,
                int64_t row_len);

// Blends rows given in half precision (F16) straight from their bytes, where
// the method reads each element once (`linear`) and the CPU has AVX2 and F16C:
// the floats blend_rows gives for the decoded rows (a half converts exactly),
// without decoding them first. Returns false, having done nothing, for any other
// method or CPU, and for weights that are not finite.
bool blend_f16_rows(const MethodSpec& spec, const std::vector<const uint16_t*>& sources, float* out,
                    int64_t rows, int64_t row_len);

// Exactly `count` weights: weights[k] where given, `fill` beyond the list.
std::vector<float> fit_weights(const std::vector<float>& weights, int64_t count, float fill);

// The MethodSpec's weights fitted to `count` sources: all 1 for an empty list, else the
// list filled with the method's weight fill.
std::vector<float> method_weights(const MethodSpec& spec, size_t count);

}  // namespace tevrin
