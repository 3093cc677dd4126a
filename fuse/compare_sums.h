// The double sums behind a comparison of one block of rows: the reference's
// squares and, per donor, its own squares and the squared differences. The
// product sum follows from these, (rr + ss - dd) / 2, and costs nothing more.
//
// Rows are added one at a time into sixteen lanes per sum (element j of a row
// goes to lane j % 16), and the lanes are added in a fixed tree at the end of
// the block, so a block's sums depend only on its values, never on the CPU path
// taken. The plain and the AVX2 paths round alike: a value's square is exact in
// double, so adding it rounds once whether by a fused multiply-add (AVX2) or by
// a multiply and an add (plain); a difference's square is rounded, then added,
// on both. Sixteen lanes keep the vector path from waiting on its own additions.
// Half-precision rows can be summed as stored: each value becomes a float
// exactly, so they give the sums of their decoded floats. These are figures for
// people, not output bytes. Pure functions, safe on any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tevrin {

constexpr size_t kMaxDonors = 7;
constexpr int kSumLanes = 16;

struct PairSums {
    double ss = 0.0;  // sum of s * s
    double dd = 0.0;  // sum of (s - r)^2
};

struct BlockSums {
    double rr = 0.0;                           // sum of r * r
    std::array<PairSums, kMaxDonors> pairs{};  // per donor
};

// The running sums of a block, in lanes.
struct SumLanes {
    alignas(32) double rr[kSumLanes] = {};
    struct Pair {
        alignas(32) double ss[kSumLanes] = {};
        alignas(32) double dd[kSumLanes] = {};
    };
    std::array<Pair, kMaxDonors> pairs{};
};

// `plain` holds every CPU to the plain path, for tests to check the other.
enum class SumPath { fastest, plain };

// Adds one row of `count` elements of the reference and of donors[0, donor_count).
void add_row(SumLanes& lanes, const float* reference, const float* const* donors,
             size_t donor_count, int64_t count, SumPath path = SumPath::fastest);

// Whether this CPU adds half-precision rows as stored (AVX2, FMA and F16C).
bool adds_half_rows();

// add_row for rows of IEEE half-precision values, as F16 tensors store them.
// Precondition: adds_half_rows().
void add_half_row(SumLanes& lanes, const uint16_t* reference, const uint16_t* const* donors,
                  size_t donor_count, int64_t count);

// The sums of the first `donors` pairs.
BlockSums lane_totals(const SumLanes& lanes, size_t donors);

// Adds the first `donors` pairs of `block` into `total`.
void add_block(BlockSums& total, const BlockSums& block, size_t donors);

}  // namespace tevrin
