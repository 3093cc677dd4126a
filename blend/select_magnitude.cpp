#include "blend/select_magnitude.h"

#include <algorithm>
#include <array>

namespace tevrin {

// A radix selection: the top 11 bits, then two digits of 10, each time counting
// the remaining candidates per digit, keeping the bucket that holds the position
// and compacting its members into `scratch`. Linear in len even on adversarial rows, and the
// counting passes have no data-dependent branches, which makes it several times faster than a
// comparison-based selection on random magnitudes. Only the value is wanted, so
// the result is exactly that of any other selection.
uint32_t select_magnitude(const float* values, int64_t len, int64_t position, uint32_t* scratch) {
    static constexpr int shifts[3] = {20, 10, 0};
    static constexpr uint32_t masks[3] = {0x7ff, 0x3ff, 0x3ff};
    std::array<uint32_t, 2048> counts;
    for (int64_t e = 0; e < len; ++e) {
        scratch[e] = magnitude_bits(values[e]);
    }
    int64_t candidates = len;
    uint32_t value = 0;
    for (int pass = 0; pass < 3; ++pass) {
        const int shift = shifts[pass];
        const uint32_t mask = masks[pass];
        std::fill(counts.begin(), counts.begin() + mask + 1, 0u);
        for (int64_t i = 0; i < candidates; ++i) {
            ++counts[(scratch[i] >> shift) & mask];
        }
        uint32_t bucket = 0;
        while (position >= counts[bucket]) {
            position -= counts[bucket];
            ++bucket;
        }
        value |= bucket << shift;
        if (pass == 2) {
            break;
        }
        int64_t kept = 0;
        for (int64_t i = 0; i < candidates; ++i) {
            const uint32_t m = scratch[i];
            scratch[kept] = m;
            kept += ((m >> shift) & mask) == bucket;
        }
        candidates = kept;
    }
    return value;
}

}  // namespace tevrin
