// Half-precision rows to floats, the conversion most fusions spend their decode
// time in. ggml's base library converts one element at a time; where the CPU has
// F16C this converts eight at once. Both are exact, so the floats are the same.
//
// Threads: pure; safe on any thread.
#pragma once

#include <cstdint>

namespace tevrin {

void f16_row_to_floats(const uint8_t* row, float* out, int64_t count);

}  // namespace tevrin
