// karcher, multislerp and nuslerp against double-precision references: the
// fixed-point condition of the spherical mean, one step of that mean written out
// plainly, the slerp of two task vectors, and the edges.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/blend/kernel_call.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

double length(const Doubles& v) {
    return std::sqrt(dot(v, v));
}

// x * a + y * b, element by element.
Doubles mix(double x, const Doubles& a, double y = 0, const Doubles& b = {}) {
    Doubles out(a.size());
    for (size_t e = 0; e < a.size(); ++e) {
        out[e] = x * a[e] + (b.empty() ? 0.0 : y * b[e]);
    }
    return out;
}

Doubles unit(const Doubles& v) {
    return mix(1 / length(v), v);
}

// log_mu(u) on the unit sphere: toward u, as long as the angle.
Doubles log_map(const Doubles& mu, const Doubles& u) {
    const double c = dot(mu, u), theta = std::acos(std::clamp(c, -1.0, 1.0));
    return theta < 1e-12 ? mix(0, u)
                         : mix(theta / std::sin(theta), u, -c * theta / std::sin(theta), mu);
}

// One step of the weighted spherical mean from the normalised weighted mean of the
// unit rows, scaled by the weighted mean length (weights sum to 1).
Doubles one_step_mean(const std::vector<Doubles>& rows, const Doubles& w) {
    Doubles start(rows[0].size()), step(rows[0].size());
    double scale = 0.0;
    for (size_t k = 0; k < rows.size(); ++k) {
        scale += w[k] * length(rows[k]);
        start = mix(1, start, w[k], unit(rows[k]));
    }
    start = unit(start);
    for (size_t k = 0; k < rows.size(); ++k) {
        step = mix(1, step, w[k], log_map(start, unit(rows[k])));
    }
    const double angle = length(step);
    return mix(scale * std::cos(angle), start, scale * std::sin(angle) / angle, step);
}

// Rows around a shared direction; row k strays by spread * (k + 1).
Rows spread_rows(size_t count, size_t len, float spread) {
    const Floats shared = fixture_values(90, int64_t(len));
    Rows rows(count, shared);
    for (size_t k = 0; k < count; ++k) {
        const Floats own = fixture_values(91 + k, int64_t(len));
        for (size_t e = 0; e < len; ++e) {
            rows[k][e] += own[e] * spread * float(k + 1);
        }
    }
    return rows;
}

TEST(Karcher, ReachesTheWeightedSphericalMean) {
    const Rows rows = spread_rows(4, 64, 0.6f);
    const Floats weights = {1, 2, 3, 2};
    const Floats out = run(spec_of(BlendMethod::karcher, 100, weights), rows);
    // At the mean the weighted log maps cancel; the length is the weighted mean.
    const Doubles mu = unit(wide(out));
    Doubles gradient(64);
    double scale = 0.0;
    for (size_t k = 0; k < rows.size(); ++k) {
        scale += weights[k] / 8 * length(wide(rows[k]));
        gradient = mix(1, gradient, weights[k] / 8, log_map(mu, unit(wide(rows[k]))));
    }
    EXPECT_LT(length(gradient), 1e-6);
    EXPECT_NEAR(length(wide(out)), scale, 1e-6 * scale);
    // The default 10 steps suffice for rows this close; one step is multislerp.
    EXPECT_EQ(run(spec_of(BlendMethod::karcher, 10, weights), rows), out);
    EXPECT_EQ(run(spec_of(BlendMethod::karcher, 1, weights), rows),
              run(spec_of(BlendMethod::multislerp, 0, weights), rows));
    // No step: the normalised linear mean of the unit rows.
    const Doubles a = wide(rows[0]), b = wide(rows[1]);
    expect_close(run(spec_of(BlendMethod::karcher, 0), {rows[0], rows[1]}),
                 mix((length(a) + length(b)) / 2, unit(mix(1, unit(a), 1, unit(b)))));
}

TEST(Multislerp, IsOneStepOfTheMeanOnRowsOrOnTaskVectors) {
    const Rows rows = spread_rows(4, 40, 0.8f);
    std::vector<Doubles> all, deltas;
    for (size_t k = 0; k < 4; ++k) {
        all.push_back(wide(rows[k]));
        if (k > 0) {
            deltas.push_back(mix(1, all[k], -1, all[0]));
        }
    }
    expect_close(run(spec_of(BlendMethod::multislerp, 0, {1, 3, 2, 2}), rows),
                 one_step_mean(all, {0.125, 0.375, 0.25, 0.25}));
    // Relative to the base: the base's weight is not read, the rest are normalised.
    expect_close(run(spec_of(BlendMethod::multislerp, 1, {9, 2, 1, 1}), rows),
                 mix(1, all[0], 1, one_step_mean(deltas, {0.5, 0.25, 0.25})));
    expect_close(run(spec_of(BlendMethod::multislerp, 1), {rows[0], rows[2]}),
                 all[2]);  // one donor
}

TEST(SphericalMeans, Edges) {
    const Floats a = fixture_values(31, 24), b = fixture_values(32, 24), zero(24);
    Floats half(24), negated(24), a_plus_b(24), a_plus_half_b(24);
    for (size_t e = 0; e < 24; ++e) {
        half[e] = a[e] * 0.5f, negated[e] = -a[e], a_plus_b[e] = a[e] + b[e];
        a_plus_half_b[e] = a[e] + b[e] * 0.5f;
    }
    const struct {
        const char* what;
        Rows sources;
        Floats weights;
        Floats expected;
        bool relative = false;
    } cases[] = {
        {"identical rows", {a, a, a}, {}, a},
        {"a zero row adds length 0 and no direction", {a, zero}, {}, half},
        {"opposite rows of equal weight: the linear mean", {a, negated}, {}, zero},
        {"all rows zero", {zero, zero}, {}, zero},
        {"negative weights count as 0", {a, b}, {1, -2}, a},
        {"no weight above 0: equal weights", {a, a}, {0, -1}, a},
        {"a weight of 0 leaves the row out", {b, a, b}, {0, 1, 0}, a},
        {"a zero task vector", {a, a, a_plus_b}, {}, a_plus_half_b, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.relative) {
            expect_close(run(spec_of(BlendMethod::karcher, 10, c.weights), c.sources),
                         wide(c.expected));
        }
        expect_close(run(spec_of(BlendMethod::multislerp, c.relative, c.weights), c.sources),
                     wide(c.expected));
    }
}

TEST(Nuslerp, SlerpsTheTaskVectorsByTheDonorWeights) {
    const Rows s = {fixture_values(41, 32), fixture_values(42, 32), fixture_values(43, 32),
                    fixture_values(44, 32)};
    const Doubles base = wide(s[0]), d1 = mix(1, wide(s[1]), -1, base),
                  d2 = mix(1, wide(s[2]), -1, base);
    const double theta = std::acos(dot(d1, d2) / (length(d1) * length(d2)));
    // Weights and t = w2 / (w1 + w2); a third donor is not read.
    const std::pair<Floats, double> cases[] = {
        {{}, 0.5}, {{5, 1, 3}, 0.75}, {{0, 2}, 1.0 / 3}, {{0, 1, -1}, 0.5}};
    for (const auto& [weights, t] : cases) {
        SCOPED_TRACE(t);
        const double x = std::sin((1 - t) * theta) / std::sin(theta);
        const double y = std::sin(t * theta) / std::sin(theta);
        expect_close(run(spec_of(BlendMethod::nuslerp, 0, weights), s),
                     mix(1, base, 1, mix(x, d1, y, d2)));
    }
    EXPECT_EQ(run(spec_of(BlendMethod::nuslerp, 0), {s[0], s[1]}), s[1]);  // one donor
    // Opposite task vectors at 0.5: the base. A zero one: half of the other.
    const Doubles mirrored = mix(1, base, -1, d1);
    expect_close(run(spec_of(BlendMethod::nuslerp, 0),
                     {s[0], s[1], Floats(mirrored.begin(), mirrored.end())}),
                 base);
    expect_close(run(spec_of(BlendMethod::nuslerp, 0), {s[0], s[0], s[2]}), mix(1, base, 0.5, d2));
}

}  // namespace
}  // namespace tevrin::testing
