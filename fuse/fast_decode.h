// Vector decoders for the types whose base-library decoder runs well below the
// speed of memory: q2_k, q3_k and q6_k, at about 1 G elements a second on one
// thread (the others decode at 3 to 4, near what memory delivers; F16 has its
// own path).
//
// Each gives exactly the floats of the type's to_float. A lane computes one
// element with the same single precision steps, in the same order, as the base
// library: (d * scale) * q for q3_k and q6_k, and (d * scale) * q - dmin * min
// for q2_k, each step rounded, none fused; so the identity holds by construction. The AVX2
// copy is picked where the CPU has AVX2 and F16C; elsewhere nothing is covered
// and the caller decodes as before. Safe to call from several threads at once.
#pragma once

#include <cstdint>

#include "fuse/fast_encode.h"

namespace tevrin {

// Decodes `count` elements (whole super-blocks laid end to end) of `src` into
// dst and returns true; returns false, writing nothing, for a type, count or CPU
// it does not cover.
bool decode_rows_fast(int32_t type, const uint8_t* src, float* dst, int64_t count,
                      VectorUse use = VectorUse::if_available);

}  // namespace tevrin
