// The double sums behind a comparison of one block of rows: the reference's
// squares and, per donor, its own squares and the squared differences. The
// product sum follows from these, (rr + ss - dd) / 2, and costs nothing more.
//
// Each sum runs in eight lanes (element i of the block goes to lane i % 8) that
// are added in a fixed tree at the end, so a block's sums depend only on its
// values, never on the CPU path taken: plain, AVX2 and AVX-512 do the same
// operations in the same order, each square added by a fused multiply-add, which
// is correctly rounded on every path (std::fma in the plain one). These are
// figures for people, not output bytes; the fusion's own arithmetic stays free
// of fused operations. Pure functions, safe on any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tevrin {

struct PairSums {
    double ss = 0.0;  // sum of s * s
    double dd = 0.0;  // sum of (s - r)^2
};

struct BlockSums {
    double rr = 0.0;                  // sum of r * r
    std::array<PairSums, 7> pairs{};  // per donor, at most seven
};

// `count` elements of the reference and of each donor.
BlockSums sum_block(const float* reference, const std::vector<const float*>& donors, int64_t count);

// Adds the first `donors` pairs of `block` into `total`.
void add_block(BlockSums& total, const BlockSums& block, size_t donors);

}  // namespace tevrin
