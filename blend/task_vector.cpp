#include <algorithm>
#include <bit>
#include <cmath>

#include "blend/blend.h"
#include "blend/draws.h"
#include "blend/methods.h"
#include "blend/select_magnitude.h"
#include "recipe/method_table.h"

// Trimming compares magnitudes as bit patterns (see select_magnitude.h), so
// selection and sorting stay well-defined on any input.

namespace tevrin {
namespace {

constexpr uint32_t infinity_bits = 0x7f800000u;

int64_t keep_count(int64_t row_len, float density) {
    const float kept = std::floor(static_cast<float>(row_len) * density);
    return std::max<int64_t>(1, static_cast<int64_t>(kept));
}

// Each donor's weight over the sum of the donors' weights (1.0 standing in for a
// sum that isn't positive); entry 0, the base, is unused.
std::vector<float> donor_shares(const BlendCall& call) {
    std::vector<float> w = method_weights(call.spec, call.sources.size());
    float sum = 0.0f;
    for (size_t k = 1; k < w.size(); ++k) {
        sum = sum + w[k];
    }
    sum = sum > 0.0f ? sum : 1.0f;
    for (size_t k = 1; k < w.size(); ++k) {
        w[k] = w[k] / sum;
    }
    return w;
}

// Starts row `at` of the output as a copy of the base's row, which the donors'
// kept differences are then added onto; returns the base's row.
const float* start_from_base(const BlendCall& call, int64_t at) {
    const float* base = call.sources[0] + at;
    std::copy(base, base + call.row_len, call.out + at);
    return base;
}

void compute_delta(const float* donor, const float* base, float* delta, int64_t len) {
    for (int64_t e = 0; e < len; ++e) {
        delta[e] = donor[e] - base[e];
    }
}

// Zeroes every element whose magnitude is below the keep_count-th largest.
void trim_delta(float* delta, uint32_t* scratch, int64_t len, int64_t keep) {
    if (keep >= len) {
        return;
    }
    const uint32_t threshold = select_magnitude(delta, len, len - keep, scratch);
    for (int64_t e = 0; e < len; ++e) {
        delta[e] = magnitude_bits(delta[e]) < threshold ? 0.0f : delta[e];
    }
}

// Float tests and selects done on the bits, so that loops using them vectorize
// (the compiler won't turn float comparisons into masks while they may trap).
// positive_mask(x) is all ones exactly when x > 0.0f, nonzero_mask(x) exactly
// when x != 0.0f, and keep_if gives x or +0.0.
uint32_t positive_mask(float x) {
    return std::bit_cast<uint32_t>(x) - 1u < 0x7f800000u ? ~0u : 0u;
}

uint32_t nonzero_mask(float x) {
    return (std::bit_cast<uint32_t>(x) & 0x7fffffffu) != 0 ? ~0u : 0u;
}

float keep_if(uint32_t mask, float x) {
    return std::bit_cast<float>(std::bit_cast<uint32_t>(x) & mask);
}

// a where mask is all ones, b where it is zero.
float select(uint32_t mask, float a, float b) {
    return std::bit_cast<float>((std::bit_cast<uint32_t>(a) & mask) |
                                (std::bit_cast<uint32_t>(b) & ~mask));
}

// "draw u >= p" becomes draw_at_least(u, draw_threshold(p)). Draws lie in [0, 1),
// never negative or NaN, so their bit patterns order like their values.
uint32_t draw_threshold(float p) {
    if (std::isnan(p)) {
        return ~0u;  // no draw is >= NaN
    }
    return p > 0.0f ? std::bit_cast<uint32_t>(p) : 0u;
}

uint32_t draw_at_least(float u, uint32_t threshold) {
    return std::bit_cast<uint32_t>(u) >= threshold ? ~0u : 0u;
}

// Row scratch of the ties election, sized once per call.
struct Election {
    std::vector<float> sign_sum;
    std::vector<float> weight_sum;
    explicit Election(int64_t len)
        : sign_sum(static_cast<size_t>(len)), weight_sum(static_cast<size_t>(len)) {}
};

// Elects a sign per element from the weighted trimmed deltas and averages the
// donors that agree with it, writing base + average into `out`. Donors run in the
// outer loop so that each inner loop is a flat, branch-free pass over the row; the
// sums still see the donors in order. A donor that doesn't agree adds +0.0, which
// changes nothing: both sums start at +0.0 and so can never hold -0.0. Likewise
// the divisor is 1.0 where no weight agreed, and the quotient is then dropped.
void elect_and_merge(const float* deltas, const std::vector<float>& w, const float* base,
                     float* out, int64_t len, Election& el) {
    float* sign_sum = el.sign_sum.data();
    float* weight_sum = el.weight_sum.data();
    std::fill(sign_sum, sign_sum + len, 0.0f);
    std::fill(weight_sum, weight_sum + len, 0.0f);
    std::fill(out, out + len, 0.0f);
    for (size_t k = 1; k < w.size(); ++k) {
        const float* d = deltas + (k - 1) * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            sign_sum[e] = sign_sum[e] + d[e] * w[k];
        }
    }
    for (size_t k = 1; k < w.size(); ++k) {
        const float* d = deltas + (k - 1) * static_cast<size_t>(len);
        const float wk = w[k];
        for (int64_t e = 0; e < len; ++e) {
            // A sum of exactly 0.0 elects the negative sign; trimmed zeros never agree.
            const uint32_t agrees =
                nonzero_mask(d[e]) & ~(positive_mask(d[e]) ^ positive_mask(sign_sum[e]));
            weight_sum[e] = weight_sum[e] + keep_if(agrees, wk);
            out[e] = out[e] + keep_if(agrees, d[e] * wk);
        }
    }
    for (int64_t e = 0; e < len; ++e) {
        const uint32_t any = positive_mask(weight_sum[e]);
        const float mean = out[e] / (keep_if(any, weight_sum[e]) + keep_if(~any, 1.0f));
        out[e] = base[e] + keep_if(any, mean);
    }
}

// Della's drop probability p at each rank, falling from drop_rate + spread at
// the smallest magnitude to drop_rate - spread at the largest, with the survivor
// divisor 1 - p.
struct RankDrop {
    float divisor;
    uint32_t keep_from;
};

std::vector<RankDrop> della_rank_drops(int64_t len, float drop_rate, float spread) {
    std::vector<RankDrop> drops(static_cast<size_t>(len));
    for (int64_t i = 0; i < len; ++i) {
        float position = 0.0f;
        if (len > 1) {
            const float f = static_cast<float>(static_cast<int32_t>(i)) /
                            static_cast<float>(static_cast<int32_t>(len - 1));
            position = 1.0f - (f + f);
        }
        const float p = drop_rate + position * spread;
        drops[static_cast<size_t>(i)] = {1.0f - p, draw_threshold(p)};
    }
    return drops;
}

constexpr int radix_bits = 11;
constexpr uint64_t radix_buckets = uint64_t{1} << radix_bits;
// Below this length a comparison sort is cheaper than three counting passes.
constexpr size_t radix_min_len = 512;

// Element indices in della's rank order: ascending magnitude, and equal
// magnitudes by ascending index, so that the order, and with it every element's
// draw, is fully fixed. Each entry is (magnitude bits << 32) | index; rows are
// assumed shorter than 2^32 elements. Sized once per call.
struct RankScratch {
    std::vector<uint64_t> ranked;
    std::vector<uint64_t> spare;
    std::vector<uint32_t> counts;
    explicit RankScratch(int64_t len)
        : ranked(static_cast<size_t>(len)),
          spare(static_cast<size_t>(len)),
          counts(3 * radix_buckets) {}
};

uint64_t radix_digit(uint64_t item, int pass) {
    return ((item >> 32) >> (pass * radix_bits)) & (radix_buckets - 1);
}

// Stable three-pass radix sort on the 31 magnitude bits. The entries start in
// index order and stability keeps that order among equal magnitudes, so this gives
// exactly the order of sorting the packed entries as integers.
void radix_rank(RankScratch& s) {
    std::fill(s.counts.begin(), s.counts.end(), 0u);
    for (uint64_t item : s.ranked) {
        for (int pass = 0; pass < 3; ++pass) {
            ++s.counts[pass * radix_buckets + radix_digit(item, pass)];
        }
    }
    for (int pass = 0; pass < 3; ++pass) {
        uint32_t* count = s.counts.data() + pass * radix_buckets;
        if (count[radix_digit(s.ranked[0], pass)] == s.ranked.size()) {
            continue;  // one bucket holds everything: this digit orders nothing
        }
        uint32_t offset = 0;
        for (uint64_t b = 0; b < radix_buckets; ++b) {
            const uint32_t c = count[b];
            count[b] = offset;
            offset += c;
        }
        for (uint64_t item : s.ranked) {
            s.spare[count[radix_digit(item, pass)]++] = item;
        }
        s.ranked.swap(s.spare);
    }
}

void rank_by_magnitude(const float* delta, RankScratch& s) {
    for (size_t e = 0; e < s.ranked.size(); ++e) {
        s.ranked[e] = (static_cast<uint64_t>(magnitude_bits(delta[e])) << 32) | e;
    }
    if (s.ranked.size() < radix_min_len) {
        std::sort(s.ranked.begin(), s.ranked.end());
    } else {
        radix_rank(s);
    }
}

}  // namespace

void blend_task(const BlendCall& call) {
    const size_t n = call.sources.size();
    const std::vector<float> w = method_weights(call.spec, n);
    const float* base = call.sources[0];
    const float factor = call.spec.t;
    const int64_t count = call.rows * call.row_len;
    float* out = call.out;
    std::fill(out, out + count, 0.0f);
    for (size_t k = 1; k < n; ++k) {
        const float* donor = call.sources[k];
        const float wk = w[k];
        for (int64_t i = 0; i < count; ++i) {
            out[i] = out[i] + (donor[i] - base[i]) * wk;
        }
    }
    for (int64_t i = 0; i < count; ++i) {
        out[i] = out[i] * factor + base[i];
    }
}

void blend_ties(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const std::vector<float> w = method_weights(call.spec, n);
    const int64_t keep = keep_count(len, method_t(call.spec));
    // Every donor's trimmed row must be ready before the election.
    std::vector<float> deltas((n - 1) * static_cast<size_t>(len));
    std::vector<uint32_t> scratch(static_cast<size_t>(len));
    Election election(len);
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        for (size_t k = 1; k < n; ++k) {
            float* delta = deltas.data() + (k - 1) * static_cast<size_t>(len);
            compute_delta(call.sources[k] + at, base, delta, len);
            trim_delta(delta, scratch.data(), len, keep);
        }
        elect_and_merge(deltas.data(), w, base, call.out + at, len, election);
    }
}

void blend_dare(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const float drop_rate = method_t(call.spec);
    const float rescale = 1.0f / (1.0f - drop_rate);
    const std::vector<float> shares = donor_shares(call);
    const uint32_t keep_from = draw_threshold(drop_rate);
    std::vector<float> draws(static_cast<size_t>(len));
    for (int64_t r = 0; r < call.rows; ++r) {
        RowEngine engine(dare_engine_seed(call.seed, call.first_row + r));
        const int64_t at = r * len;
        const float* base = start_from_base(call, at);
        float* out = call.out + at;
        for (size_t k = 1; k < n; ++k) {
            const float* donor = call.sources[k] + at;
            const float f = shares[k] * rescale;
            // One draw per element, kept or not, so every row takes the same draws.
            // Kept values are computed either way: a select beats a branch on a coin
            // toss.
            uniform_draws(engine, draws.data(), len);
            for (int64_t e = 0; e < len; ++e) {
                const float kept = (donor[e] - base[e]) * f + out[e];
                out[e] =
                    select(draw_at_least(draws[static_cast<size_t>(e)], keep_from), kept, out[e]);
            }
        }
    }
}

void blend_breadcrumbs(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const int64_t keep = keep_count(len, method_t(call.spec));
    const int64_t top = static_cast<int64_t>(std::floor(static_cast<double>(len) * 0.01));
    const int64_t upper = len - top;
    const int64_t lower = std::max<int64_t>(0, upper - keep);
    const std::vector<float> shares = donor_shares(call);
    std::vector<float> delta(static_cast<size_t>(len));
    std::vector<uint32_t> scratch(static_cast<size_t>(len));
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = start_from_base(call, at);
        float* out = call.out + at;
        for (size_t k = 1; k < n; ++k) {
            const float share = shares[k];
            compute_delta(call.sources[k] + at, base, delta.data(), len);
            uint32_t high = infinity_bits;
            if (top > 0) {
                high = select_magnitude(delta.data(), len, upper, scratch.data());
            }
            const uint32_t low = select_magnitude(delta.data(), len, lower, scratch.data());
            for (int64_t e = 0; e < len; ++e) {
                const uint32_t m = magnitude_bits(delta[e]);
                const float kept = delta[e] * share + out[e];
                out[e] = select(((m >= low) & (m < high)) ? ~0u : 0u, kept, out[e]);
            }
        }
    }
}

void blend_della(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const float drop_rate = method_t(call.spec);
    const float spread = std::min({drop_rate, 0.95f - drop_rate, 0.15f});
    const std::vector<float> shares = donor_shares(call);
    const std::vector<RankDrop> by_rank = della_rank_drops(len, drop_rate, spread);
    std::vector<float> delta(static_cast<size_t>(len));
    std::vector<float> draws(static_cast<size_t>(len));
    RankScratch ranks(len);
    for (int64_t r = 0; r < call.rows; ++r) {
        RowEngine engine(della_engine_seed(call.seed, call.first_row + r));
        const int64_t at = r * len;
        const float* base = start_from_base(call, at);
        float* out = call.out + at;
        for (size_t k = 1; k < n; ++k) {
            const float share = shares[k];
            compute_delta(call.sources[k] + at, base, delta.data(), len);
            rank_by_magnitude(delta.data(), ranks);
            uniform_draws(engine, draws.data(), len);
            for (size_t i = 0; i < ranks.ranked.size(); ++i) {
                const auto idx = static_cast<uint32_t>(ranks.ranked[i]);
                const RankDrop& rank = by_rank[i];
                const float kept = (share * delta[idx]) / rank.divisor + out[idx];
                out[idx] = select(draw_at_least(draws[i], rank.keep_from), kept, out[idx]);
            }
        }
    }
}

}  // namespace tevrin
