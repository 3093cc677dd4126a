// Order statistics of magnitudes, shared by the methods that trim or rank a row.
//
// Magnitudes are compared as the bit patterns of |x| (sign bit cleared). For
// non-negative floats that order is the numeric order, and it is a total order
// that also places NaN above infinity, so selection stays well-defined on any
// input while agreeing with float comparison on every number. Pure functions;
// the caller owns the scratch.
#pragma once

#include <bit>
#include <cstdint>

namespace tevrin {

inline uint32_t magnitude_bits(float x) {
    return std::bit_cast<uint32_t>(x) & 0x7fffffffu;
}

// The magnitude bits that would stand at `position` (0 <= position < len) if the
// magnitudes of values[0, len) were sorted ascending. Linear in len; `scratch`
// holds len entries.
uint32_t select_magnitude(const float* values, int64_t len, int64_t position, uint32_t* scratch);

}  // namespace tevrin
