// model_stock and sce: task-vector methods whose factors come from statistics of
// the donors' task vectors. The statistics are taken per row (one row of every
// source at a time), so a row's result depends on that row alone: one pass, no
// memory beyond a few rows, and nothing that threads or chunking could change.
#include <algorithm>
#include <bit>
#include <cmath>

#include "blend/blend.h"
#include "blend/methods.h"
#include "blend/row_dot.h"
#include "blend/select_magnitude.h"
#include "recipe/method_table.h"

namespace tevrin {
namespace {

void copy_base(const BlendCall& call) {
    std::copy(call.sources[0], call.sources[0] + call.rows * call.row_len, call.out);
}

// The donors' task vectors of one row, donor k - 1 at deltas + (k - 1) * len.
void compute_deltas(const BlendCall& call, int64_t at, float* deltas) {
    const int64_t len = call.row_len;
    const float* base = call.sources[0] + at;
    for (size_t k = 1; k < call.sources.size(); ++k) {
        const float* donor = call.sources[k] + at;
        float* d = deltas + (k - 1) * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            d[e] = donor[e] - base[e];
        }
    }
}

// Mean cosine over all pairs of task vectors (in pair order 1-2, 1-3, ..., 2-3,
// ...). A pair with a zero vector counts as orthogonal, cosine 0.
double mean_pair_cosine(const float* deltas, size_t donors, int64_t len) {
    std::vector<double> norm(donors);
    for (size_t i = 0; i < donors; ++i) {
        const float* d = deltas + i * static_cast<size_t>(len);
        norm[i] = std::sqrt(row_dot(d, d, len));
    }
    double sum = 0.0;
    for (size_t i = 0; i < donors; ++i) {
        for (size_t j = i + 1; j < donors; ++j) {
            const double denom = norm[i] * norm[j];
            if (denom > 0.0) {
                sum += row_dot(deltas + i * static_cast<size_t>(len),
                               deltas + j * static_cast<size_t>(len), len) /
                       denom;
            }
        }
    }
    return sum / static_cast<double>(donors * (donors - 1) / 2);
}

// The interpolation factor toward the donors' mean. The cosine is clamped to
// [0, 1] (NaN to 0): donors that point away from each other on average give
// t = 0, the base, rather than a factor beyond any end. One donor has no pair;
// the formula then gives t = 1 for any angle, so the donor is taken.
float stock_factor(const float* deltas, size_t donors, int64_t len) {
    if (donors < 2) {
        return 1.0f;
    }
    double c = mean_pair_cosine(deltas, donors, len);
    c = !(c > 0.0) ? 0.0 : c > 1.0 ? 1.0 : c;
    const auto n = static_cast<double>(donors);
    return static_cast<float>(n * c / (1.0 + (n - 1.0) * c));
}

// Float tests and selects on the bits, so that the loops using them vectorize.
// positive(x) is x > 0.0f and nonzero(x) is x != 0.0f (so -0.0 is zero and has
// no sign); keep_if gives x or +0.0.
bool positive(float x) {
    return std::bit_cast<uint32_t>(x) - 1u < 0x7f800000u;
}

bool nonzero(float x) {
    return (std::bit_cast<uint32_t>(x) & 0x7fffffffu) != 0;
}

float keep_if(bool keep, float x) {
    return std::bit_cast<float>(std::bit_cast<uint32_t>(x) & (keep ? ~0u : 0u));
}

// Row scratch of sce, sized once per call.
struct SceScratch {
    std::vector<float> deltas;
    std::vector<float> mean;
    std::vector<float> spread;
    std::vector<uint32_t> select;
    std::vector<float> sign_sum;
    SceScratch(size_t donors, int64_t len)
        : deltas(donors * static_cast<size_t>(len)),
          mean(static_cast<size_t>(len)),
          spread(static_cast<size_t>(len)),
          select(static_cast<size_t>(len)),
          sign_sum(static_cast<size_t>(len)) {}
};

// Per element, the sum of squared deviations of the donors' deltas from their
// mean: N times the variance, which ranks the elements the same way. Donors run
// in the outer loops so that each inner loop is a flat pass over the row; each
// element still sees its donors in order.
void deviation_squares(SceScratch& s, size_t donors, int64_t len) {
    const auto n = static_cast<float>(donors);
    float* mean = s.mean.data();
    float* spread = s.spread.data();
    std::fill(mean, mean + len, 0.0f);
    std::fill(spread, spread + len, 0.0f);
    for (size_t k = 0; k < donors; ++k) {
        const float* d = s.deltas.data() + k * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            mean[e] = mean[e] + d[e];
        }
    }
    for (int64_t e = 0; e < len; ++e) {
        mean[e] = mean[e] / n;
    }
    for (size_t k = 0; k < donors; ++k) {
        const float* d = s.deltas.data() + k * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            const float dev = d[e] - mean[e];
            spread[e] = spread[e] + dev * dev;
        }
    }
}

// Select: zero every delta at elements whose spread is below the keep-th largest
// (elements equal to it stay, so ties can keep more).
// One donor has no spread, and every element is kept.
void select_by_spread(SceScratch& s, size_t donors, int64_t len, int64_t keep) {
    if (keep >= len || donors < 2) {
        return;
    }
    deviation_squares(s, donors, len);
    const uint32_t threshold = select_magnitude(s.spread.data(), len, len - keep, s.select.data());
    for (size_t k = 0; k < donors; ++k) {
        float* d = s.deltas.data() + k * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            d[e] = keep_if(magnitude_bits(s.spread[static_cast<size_t>(e)]) >= threshold, d[e]);
        }
    }
}

// Calculate: each donor's weight is its share of the summed squares of the
// selected deltas. All zero when nothing is left to weigh.
std::vector<float> donor_weights(const float* deltas, size_t donors, int64_t len) {
    std::vector<double> squares(donors);
    double total = 0.0;
    for (size_t k = 0; k < donors; ++k) {
        const float* d = deltas + k * static_cast<size_t>(len);
        squares[k] = row_dot(d, d, len);
        total += squares[k];
    }
    std::vector<float> w(donors, 0.0f);
    if (total > 0.0) {
        for (size_t k = 0; k < donors; ++k) {
            w[k] = static_cast<float>(squares[k] / total);
        }
    }
    return w;
}

// Erase and add: per element, only donors whose delta has the sign of the
// (unweighted) sum of the selected deltas count. A sum of exactly zero has no
// sign, and the element keeps the base's value.
void erase_and_merge(SceScratch& s, const std::vector<float>& w, const float* base, float* out,
                     int64_t len) {
    const size_t donors = w.size();
    float* sign_sum = s.sign_sum.data();
    std::fill(sign_sum, sign_sum + len, 0.0f);
    std::fill(out, out + len, 0.0f);
    for (size_t k = 0; k < donors; ++k) {
        const float* d = s.deltas.data() + k * static_cast<size_t>(len);
        for (int64_t e = 0; e < len; ++e) {
            sign_sum[e] = sign_sum[e] + d[e];
        }
    }
    for (size_t k = 0; k < donors; ++k) {
        const float* d = s.deltas.data() + k * static_cast<size_t>(len);
        const float wk = w[k];
        for (int64_t e = 0; e < len; ++e) {
            const bool agrees =
                nonzero(d[e]) & nonzero(sign_sum[e]) & (positive(d[e]) == positive(sign_sum[e]));
            out[e] = out[e] + keep_if(agrees, d[e] * wk);
        }
    }
    for (int64_t e = 0; e < len; ++e) {
        out[e] = base[e] + out[e];
    }
}

}  // namespace

void blend_model_stock(const BlendCall& call) {
    const size_t donors = call.sources.size() - 1;
    if (donors == 0) {
        return copy_base(call);
    }
    const int64_t len = call.row_len;
    std::vector<float> deltas(donors * static_cast<size_t>(len));
    const auto n = static_cast<float>(donors);
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        compute_deltas(call, at, deltas.data());
        const float t = stock_factor(deltas.data(), donors, len);
        const float one_minus_t = 1.0f - t;
        const float* base = call.sources[0] + at;
        float* out = call.out + at;
        std::fill(out, out + len, 0.0f);
        for (size_t k = 1; k < call.sources.size(); ++k) {
            const float* donor = call.sources[k] + at;
            for (int64_t e = 0; e < len; ++e) {
                out[e] = out[e] + donor[e];
            }
        }
        for (int64_t e = 0; e < len; ++e) {
            out[e] = (out[e] / n) * t + base[e] * one_minus_t;
        }
    }
}

void blend_sce(const BlendCall& call) {
    const size_t donors = call.sources.size() - 1;
    if (donors == 0) {
        return copy_base(call);
    }
    const int64_t len = call.row_len;
    const float share = method_t(call.spec);
    const int64_t keep =
        std::max<int64_t>(1, static_cast<int64_t>(std::floor(static_cast<float>(len) * share)));
    SceScratch scratch(donors, len);
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        compute_deltas(call, at, scratch.deltas.data());
        select_by_spread(scratch, donors, len, keep);
        const std::vector<float> w = donor_weights(scratch.deltas.data(), donors, len);
        erase_and_merge(scratch, w, call.sources[0] + at, call.out + at, len);
    }
}

}  // namespace tevrin
