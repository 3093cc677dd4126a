#include <algorithm>
#include <bit>
#include <cmath>

#include "blend/blend.h"
#include "blend/draws.h"
#include "blend/methods.h"

// Trimming compares magnitudes as the bit patterns of |delta| (sign bit cleared).
// For non-negative floats that order is the numeric order, and it is a total order
// that also places NaN above infinity, so selection and sorting stay well-defined
// on any input while agreeing with float comparison on every number.

namespace tevrin {
namespace {

constexpr uint32_t infinity_bits = 0x7f800000u;

uint32_t magnitude_bits(float delta) {
    return std::bit_cast<uint32_t>(delta) & 0x7fffffffu;
}

float clamp_t(float t, float lo, float hi) {
    return std::clamp(t, lo, hi);
}

int64_t keep_count(int64_t row_len, float density) {
    const float kept = std::floor(static_cast<float>(row_len) * density);
    return std::max<int64_t>(1, static_cast<int64_t>(kept));
}

// w[1] + ... + w[n - 1], with 1.0 standing in for a sum that isn't positive.
float donor_weight_sum(const std::vector<float>& w) {
    float sum = 0.0f;
    for (size_t k = 1; k < w.size(); ++k) {
        sum = sum + w[k];
    }
    return sum > 0.0f ? sum : 1.0f;
}

void compute_delta(const float* donor, const float* base, float* delta, int64_t len) {
    for (int64_t e = 0; e < len; ++e) {
        delta[e] = donor[e] - base[e];
    }
}

void fill_magnitudes(const float* delta, uint32_t* mags, int64_t len) {
    for (int64_t e = 0; e < len; ++e) {
        mags[e] = magnitude_bits(delta[e]);
    }
}

// The value that would stand at `position` if mags[0, end) were sorted; reorders
// that range.
uint32_t order_statistic(uint32_t* mags, int64_t position, int64_t end) {
    std::nth_element(mags, mags + position, mags + end);
    return mags[position];
}

// Zeroes every element whose magnitude is below the keep_count-th largest.
void trim_delta(float* delta, uint32_t* mags, int64_t len, int64_t keep) {
    if (keep >= len) {
        return;
    }
    fill_magnitudes(delta, mags, len);
    const uint32_t threshold = order_statistic(mags, len - keep, len);
    for (int64_t e = 0; e < len; ++e) {
        delta[e] = magnitude_bits(delta[e]) < threshold ? 0.0f : delta[e];
    }
}

float ties_element(const BlendCall& call, const std::vector<float>& w, const float* deltas,
                   int64_t e, float base) {
    const size_t n = call.sources.size();
    const size_t stride = static_cast<size_t>(call.row_len);
    float s = 0.0f;
    for (size_t k = 1; k < n; ++k) {
        s = s + deltas[(k - 1) * stride + e] * w[k];
    }
    // A sum of exactly 0.0 elects the negative sign.
    const bool positive = s > 0.0f;
    float wsum = 0.0f;
    float acc = 0.0f;
    for (size_t k = 1; k < n; ++k) {
        const float d = deltas[(k - 1) * stride + e];
        if (d != 0.0f && (d > 0.0f) == positive) {
            wsum = wsum + w[k];
            acc = acc + d * w[k];
        }
    }
    return wsum > 0.0f ? base + acc / wsum : base + 0.0f;
}

// Element indices in della's rank order: ascending magnitude, and equal
// magnitudes by ascending index, so that the order, and with it every element's
// draw, is fully fixed. Each entry is (magnitude bits << 32) | index; rows are
// assumed shorter than 2^32 elements.
struct RankScratch {
    std::vector<uint64_t> ranked;
    std::vector<uint64_t> spare;
    explicit RankScratch(int64_t len)
        : ranked(static_cast<size_t>(len)), spare(static_cast<size_t>(len)) {}
};

// Below this length a comparison sort is cheaper than three counting passes.
constexpr size_t radix_min_len = 512;
constexpr int radix_bits = 11;
constexpr uint64_t radix_buckets = uint64_t{1} << radix_bits;

// Stable three-pass radix sort on the 31 magnitude bits. The entries start in
// index order and stability keeps that order among equal magnitudes, so this gives
// exactly the order of sorting the packed entries as integers.
void radix_rank(RankScratch& s) {
    std::vector<uint32_t> counts(3 * radix_buckets, 0);
    for (uint64_t item : s.ranked) {
        const uint64_t key = item >> 32;
        for (int pass = 0; pass < 3; ++pass) {
            ++counts[pass * radix_buckets + ((key >> (pass * radix_bits)) & (radix_buckets - 1))];
        }
    }
    for (int pass = 0; pass < 3; ++pass) {
        uint32_t* count = counts.data() + pass * radix_buckets;
        const uint64_t first_key = s.ranked[0] >> 32;
        if (count[(first_key >> (pass * radix_bits)) & (radix_buckets - 1)] == s.ranked.size()) {
            continue;  // one bucket holds everything: this digit orders nothing
        }
        uint32_t offset = 0;
        for (uint64_t b = 0; b < radix_buckets; ++b) {
            const uint32_t c = count[b];
            count[b] = offset;
            offset += c;
        }
        for (uint64_t item : s.ranked) {
            const uint64_t digit = ((item >> 32) >> (pass * radix_bits)) & (radix_buckets - 1);
            s.spare[count[digit]++] = item;
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
    const std::vector<float> w = fit_weights(call.spec.weights, static_cast<int64_t>(n), 1.0f);
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
    const std::vector<float> w = fit_weights(call.spec.weights, static_cast<int64_t>(n), 1.0f);
    const int64_t keep = keep_count(len, clamp_t(call.spec.t, 0.01f, 1.0f));
    // Every donor's trimmed row must be ready before the election.
    std::vector<float> deltas((n - 1) * static_cast<size_t>(len));
    std::vector<uint32_t> mags(static_cast<size_t>(len));
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        for (size_t k = 1; k < n; ++k) {
            float* delta = deltas.data() + (k - 1) * static_cast<size_t>(len);
            compute_delta(call.sources[k] + at, base, delta, len);
            trim_delta(delta, mags.data(), len, keep);
        }
        for (int64_t e = 0; e < len; ++e) {
            call.out[at + e] = ties_element(call, w, deltas.data(), e, base[e]);
        }
    }
}

void blend_dare(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const float drop_rate = clamp_t(call.spec.t, 0.0f, 0.99f);
    const float rescale = 1.0f / (1.0f - drop_rate);
    const std::vector<float> w = fit_weights(call.spec.weights, static_cast<int64_t>(n), 1.0f);
    const float weight_sum = donor_weight_sum(w);
    std::vector<float> draws(static_cast<size_t>(len));
    for (int64_t r = 0; r < call.rows; ++r) {
        RowEngine engine(dare_engine_seed(call.seed, call.first_row + r));
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        float* out = call.out + at;
        std::copy(base, base + len, out);
        for (size_t k = 1; k < n; ++k) {
            const float* donor = call.sources[k] + at;
            const float f = (w[k] / weight_sum) * rescale;
            // One draw per element, kept or not, so every row takes the same draws.
            // Kept values are computed either way: a select beats a branch on a coin
            // toss.
            uniform_draws(engine, draws.data(), len);
            for (int64_t e = 0; e < len; ++e) {
                const float kept = (donor[e] - base[e]) * f + out[e];
                out[e] = draws[static_cast<size_t>(e)] >= drop_rate ? kept : out[e];
            }
        }
    }
}

void blend_breadcrumbs(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const int64_t keep = keep_count(len, clamp_t(call.spec.t, 0.01f, 1.0f));
    const int64_t top = static_cast<int64_t>(std::floor(static_cast<double>(len) * 0.01));
    const int64_t upper = len - top;
    const int64_t lower = std::max<int64_t>(0, upper - keep);
    const std::vector<float> w = fit_weights(call.spec.weights, static_cast<int64_t>(n), 1.0f);
    const float weight_sum = donor_weight_sum(w);
    std::vector<float> delta(static_cast<size_t>(len));
    std::vector<uint32_t> mags(static_cast<size_t>(len));
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        float* out = call.out + at;
        std::copy(base, base + len, out);
        for (size_t k = 1; k < n; ++k) {
            const float share = w[k] / weight_sum;
            compute_delta(call.sources[k] + at, base, delta.data(), len);
            fill_magnitudes(delta.data(), mags.data(), len);
            // Selecting `upper` first leaves the lower cut within mags[0, upper).
            uint32_t high = infinity_bits;
            if (top > 0) {
                high = order_statistic(mags.data(), upper, len);
            }
            const uint32_t low = order_statistic(mags.data(), lower, upper);
            for (int64_t e = 0; e < len; ++e) {
                const uint32_t m = magnitude_bits(delta[e]);
                const float kept = delta[e] * share + out[e];
                out[e] = m >= low && m < high ? kept : out[e];
            }
        }
    }
}

void blend_della(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    const float drop_rate = clamp_t(call.spec.t, 0.0f, 0.95f);
    const float spread = std::min({drop_rate, 0.95f - drop_rate, 0.15f});
    const std::vector<float> w = fit_weights(call.spec.weights, static_cast<int64_t>(n), 1.0f);
    const float weight_sum = donor_weight_sum(w);
    // Drop probability by rank, from drop_rate + spread down to drop_rate - spread.
    std::vector<float> drop_by_rank(static_cast<size_t>(len));
    for (int64_t i = 0; i < len; ++i) {
        float position = 0.0f;
        if (len > 1) {
            const float f = static_cast<float>(static_cast<int32_t>(i)) /
                            static_cast<float>(static_cast<int32_t>(len - 1));
            position = 1.0f - (f + f);
        }
        drop_by_rank[static_cast<size_t>(i)] = drop_rate + position * spread;
    }
    std::vector<float> delta(static_cast<size_t>(len));
    std::vector<float> draws(static_cast<size_t>(len));
    RankScratch ranks(len);
    for (int64_t r = 0; r < call.rows; ++r) {
        RowEngine engine(della_engine_seed(call.seed, call.first_row + r));
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        float* out = call.out + at;
        std::copy(base, base + len, out);
        for (size_t k = 1; k < n; ++k) {
            const float share = w[k] / weight_sum;
            compute_delta(call.sources[k] + at, base, delta.data(), len);
            rank_by_magnitude(delta.data(), ranks);
            uniform_draws(engine, draws.data(), len);
            for (size_t i = 0; i < ranks.ranked.size(); ++i) {
                const auto idx = static_cast<uint32_t>(ranks.ranked[i]);
                const float p = drop_by_rank[i];
                const float kept = (share * delta[idx]) / (1.0f - p) + out[idx];
                out[idx] = draws[i] >= p ? kept : out[idx];
            }
        }
    }
}

}  // namespace tevrin
