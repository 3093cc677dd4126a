// karcher, multislerp and nuslerp: means and interpolations of row directions on
// the unit sphere. karcher and multislerp average the row lengths separately and
// work in double precision throughout, rounding once per element at the end; the
// mean is taken per row, so rows are independent of each other.
#include <algorithm>
#include <cmath>

#include "blend/blend.h"
#include "blend/methods.h"
#include "blend/row_dot.h"
#include "recipe/method_table.h"

namespace tevrin {
namespace {

// karcher stops when its last step turned the mean by less than this angle
// (radians): far below what a float of the result can show.
constexpr double kStepTolerance = 1e-9;
// A weighted sum of unit rows shorter than this has no direction to speak of
// (rows of equal weight pointing opposite ways).
constexpr double kNoDirection = 1e-6;

// Weights of the mean for the sources from position `first` on: the weight list
// (equal when empty, 0 behind a short list), negative and NaN weights as 0, equal
// again when none is left above 0, then divided by their sum.
std::vector<double> mean_weights(const MethodSpec& spec, size_t n, size_t first) {
    const std::vector<float> fitted = method_weights(spec, n);
    std::vector<double> w(n - first);
    double sum = 0.0;
    for (size_t k = 0; k < w.size(); ++k) {
        w[k] = fitted[first + k] > 0.0f ? static_cast<double>(fitted[first + k]) : 0.0;
        sum += w[k];
    }
    if (!(sum > 0.0)) {
        std::fill(w.begin(), w.end(), 1.0);
        sum = static_cast<double>(w.size());
    }
    for (double& wk : w) {
        wk = wk / sum;
    }
    return w;
}

// One mean's input and scratch: `rows` (row_len floats each) with weights `w`
// summing to 1, and two double rows.
struct SphereRows {
    std::vector<const float*> rows;
    std::vector<double> w;
    std::vector<double> norm;
    std::vector<double> mu;
    std::vector<double> step;
    SphereRows(std::vector<double> weights, int64_t len)
        : rows(weights.size()),
          w(std::move(weights)),
          norm(w.size()),
          mu(static_cast<size_t>(len)),
          step(static_cast<size_t>(len)) {}
};

// out[e] := add[e] + value[e] rounded to float (add may be null).
void write_row(const double* value, double scale, const float* add, float* out, int64_t len) {
    for (int64_t e = 0; e < len; ++e) {
        const auto v = static_cast<float>(value[e] * scale);
        out[e] = add != nullptr ? add[e] + v : v;
    }
}

// Adds to s.step the weighted logarithm map of every row at the mean s.mu: the
// tangent vector toward the row, of length the angle. A row exactly opposite the
// mean has no direction toward it and adds nothing.
void add_log_maps(SphereRows& s, const std::vector<double>& dir_w, int64_t len) {
    std::fill(s.step.begin(), s.step.end(), 0.0);
    for (size_t k = 0; k < s.rows.size(); ++k) {
        if (!(dir_w[k] > 0.0)) {
            continue;
        }
        const double inv = 1.0 / s.norm[k];
        const double c = std::clamp(row_dot(s.mu.data(), s.rows[k], len) * inv, -1.0, 1.0);
        const double theta = std::acos(c);
        const double sine = std::sin(theta);
        const double f = sine > 1e-12 ? theta / sine : c > 0.0 ? 1.0 : 0.0;
        const double g = dir_w[k] * f;
        const float* row = s.rows[k];
        for (int64_t e = 0; e < len; ++e) {
            s.step[e] += g * (static_cast<double>(row[e]) * inv - c * s.mu[e]);
        }
    }
}

void normalise(std::vector<double>& v, double norm) {
    for (double& x : v) {
        x = x / norm;
    }
}

// The weighted mean of the rows' directions on the unit sphere, scaled by the
// weighted mean of their lengths, added to `add` and written to `out`. It starts
// at the normalised weighted mean of the unit rows and takes up to `iterations`
// steps of the fixed-point iteration mu := exp_mu(sum of w_k log_mu(u_k)),
// stopping early when a step is at most `tolerance`. Zero rows count in the
// length average but have no direction; with no direction at all (all rows
// zero, or opposite rows of equal weight) the result is the weighted linear mean.
void spherical_mean(SphereRows& s, int iterations, double tolerance, const float* add, float* out,
                    int64_t len) {
    const size_t count = s.rows.size();
    double length = 0.0;
    double dir_sum = 0.0;
    std::vector<double> dir_w(count, 0.0);
    for (size_t k = 0; k < count; ++k) {
        s.norm[k] = std::sqrt(row_dot(s.rows[k], s.rows[k], len));
        length += s.w[k] * s.norm[k];
        dir_w[k] = s.norm[k] > 0.0 ? s.w[k] : 0.0;
        dir_sum += dir_w[k];
    }
    std::fill(s.mu.begin(), s.mu.end(), 0.0);
    if (dir_sum > 0.0) {
        for (size_t k = 0; k < count; ++k) {
            dir_w[k] = dir_w[k] / dir_sum;
            if (dir_w[k] > 0.0) {
                const double g = dir_w[k] / s.norm[k];
                for (int64_t e = 0; e < len; ++e) {
                    s.mu[e] += g * static_cast<double>(s.rows[k][e]);
                }
            }
        }
    }
    const double mean_norm = std::sqrt(row_dot(s.mu.data(), s.mu.data(), len));
    if (!(mean_norm >= kNoDirection)) {
        std::fill(s.mu.begin(), s.mu.end(), 0.0);
        for (size_t k = 0; k < count; ++k) {
            for (int64_t e = 0; e < len; ++e) {
                s.mu[e] += s.w[k] * static_cast<double>(s.rows[k][e]);
            }
        }
        return write_row(s.mu.data(), 1.0, add, out, len);
    }
    normalise(s.mu, mean_norm);
    for (int i = 0; i < iterations; ++i) {
        add_log_maps(s, dir_w, len);
        const double angle = std::sqrt(row_dot(s.step.data(), s.step.data(), len));
        if (!(angle > tolerance)) {
            break;
        }
        const double along = std::cos(angle);
        const double across = std::sin(angle) / angle;
        for (int64_t e = 0; e < len; ++e) {
            s.mu[e] = along * s.mu[e] + across * s.step[e];
        }
        normalise(s.mu, std::sqrt(row_dot(s.mu.data(), s.mu.data(), len)));
    }
    write_row(s.mu.data(), length, add, out, len);
}

// The spherical mean of every row of the call. With `relative`, of the donors'
// task vectors (the base's weight is not read), added back to the base.
void blend_spherical_mean(const BlendCall& call, bool relative, int iterations, double tolerance) {
    const size_t n = call.sources.size();
    const int64_t len = call.row_len;
    if (relative && n < 2) {
        std::copy(call.sources[0], call.sources[0] + call.rows * len, call.out);
        return;
    }
    SphereRows s(mean_weights(call.spec, n, relative ? 1 : 0), len);
    std::vector<float> deltas(relative ? (n - 1) * static_cast<size_t>(len) : 0);
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        for (size_t k = 0; k < s.rows.size(); ++k) {
            if (!relative) {
                s.rows[k] = call.sources[k] + at;
                continue;
            }
            float* d = deltas.data() + k * static_cast<size_t>(len);
            const float* donor = call.sources[k + 1] + at;
            for (int64_t e = 0; e < len; ++e) {
                d[e] = donor[e] - base[e];
            }
            s.rows[k] = d;
        }
        spherical_mean(s, iterations, tolerance, relative ? base : nullptr, call.out + at, len);
    }
}

// nuslerp's factor from the donors' weights: w2 / (w1 + w2), 0.5 when that is
// not a number (a zero sum).
float nuslerp_factor(const BlendCall& call) {
    const std::vector<float> w = method_weights(call.spec, 3);
    const float t = w[2] / (w[1] + w[2]);
    return std::isfinite(t) ? t : 0.5f;
}

}  // namespace

void blend_karcher(const BlendCall& call) {
    blend_spherical_mean(call, false, static_cast<int>(method_t(call.spec)), kStepTolerance);
}

void blend_multislerp(const BlendCall& call) {
    blend_spherical_mean(call, method_t(call.spec) >= 0.5f, 1, 0.0);
}

void blend_nuslerp(const BlendCall& call) {
    const size_t n = call.sources.size();
    const int64_t count = call.rows * call.row_len;
    if (n < 3) {
        // No second task vector: base plus the lone one is the donor itself.
        std::copy(call.sources[n - 1], call.sources[n - 1] + count, call.out);
        return;
    }
    const int64_t len = call.row_len;
    MethodSpec slerp_spec;
    slerp_spec.method = BlendMethod::slerp;
    slerp_spec.t = nuslerp_factor(call);
    std::vector<float> scratch(3 * static_cast<size_t>(len));
    float* d1 = scratch.data();
    float* d2 = d1 + len;
    float* arc = d2 + len;
    const std::vector<const float*> ends = {d1, d2};
    for (int64_t r = 0; r < call.rows; ++r) {
        const int64_t at = r * len;
        const float* base = call.sources[0] + at;
        for (int64_t e = 0; e < len; ++e) {
            d1[e] = call.sources[1][at + e] - base[e];
            d2[e] = call.sources[2][at + e] - base[e];
        }
        blend_slerp(BlendCall{slerp_spec, call.seed, call.first_row + r, ends, arc, 1, len});
        float* out = call.out + at;
        for (int64_t e = 0; e < len; ++e) {
            out[e] = base[e] + arc[e];
        }
    }
}

}  // namespace tevrin
