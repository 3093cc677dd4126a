// The double-precision dot product that the statistics and spherical methods take
// over a row. Header only; pure.
#pragma once

#include <cstdint>

namespace tevrin {

// Sum of a[e] * b[e] in double, in four interleaved partial sums (element e goes
// to sum e % 4) added as (s0 + s1) + (s2 + s3): a fixed order, so the result
// depends on the row alone, that keeps four additions in flight.
template <class A, class B>
double row_dot(const A* a, const B* b, int64_t len) {
    double s[4] = {0.0, 0.0, 0.0, 0.0};
    int64_t e = 0;
    for (; e + 4 <= len; e += 4) {
        for (int j = 0; j < 4; ++j) {
            s[j] += static_cast<double>(a[e + j]) * static_cast<double>(b[e + j]);
        }
    }
    for (int j = 0; e < len; ++e, ++j) {
        s[j] += static_cast<double>(a[e]) * static_cast<double>(b[e]);
    }
    return (s[0] + s[1]) + (s[2] + s[3]);
}

}  // namespace tevrin
