// karcher, multislerp and nuslerp against double-precision references: closed
// forms on two rows, the fixed-point condition of the spherical mean, a one-step
// mean written out plainly, and the edges (zero, identical and opposite rows).
// Also the property all five newer kernels share: rows give the same bytes
// however they are cut into calls.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "blend/methods.h"
#include "tests/blend/kernel_call.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

Doubles scaled(const Doubles& v, double f) {
    Doubles out(v.size());
    for (size_t e = 0; e < v.size(); ++e) {
        out[e] = v[e] * f;
    }
    return out;
}

Doubles unit(const Doubles& v) {
    return scaled(v, 1.0 / std::sqrt(dot(v, v)));
}

// Slerp of two unit vectors at t.
Doubles unit_slerp(const Doubles& a, const Doubles& b, double t) {
    const double theta = std::acos(std::clamp(dot(a, b), -1.0, 1.0));
    Doubles out(a.size());
    for (size_t e = 0; e < a.size(); ++e) {
        out[e] = (std::sin((1 - t) * theta) * a[e] + std::sin(t * theta) * b[e]) / std::sin(theta);
    }
    return out;
}

// log_mu(u) on the unit sphere.
Doubles log_map(const Doubles& mu, const Doubles& u) {
    const double c = std::clamp(dot(mu, u), -1.0, 1.0), theta = std::acos(c);
    Doubles out(u.size());
    for (size_t e = 0; e < u.size(); ++e) {
        out[e] = theta < 1e-12 ? 0.0 : (u[e] - c * mu[e]) * theta / std::sin(theta);
    }
    return out;
}

// One step of the weighted spherical mean from the normalised weighted mean,
// scaled by the weighted mean length (weights summing to 1).
Doubles one_step_mean(const std::vector<Doubles>& rows, const Doubles& w) {
    const size_t len = rows[0].size();
    Doubles start(len), step(len);
    double length = 0.0;
    for (size_t k = 0; k < rows.size(); ++k) {
        length += w[k] * std::sqrt(dot(rows[k], rows[k]));
        const Doubles u = unit(rows[k]);
        for (size_t e = 0; e < len; ++e) {
            start[e] += w[k] * u[e];
        }
    }
    start = unit(start);
    for (size_t k = 0; k < rows.size(); ++k) {
        const Doubles l = log_map(start, unit(rows[k]));
        for (size_t e = 0; e < len; ++e) {
            step[e] += w[k] * l[e];
        }
    }
    const double angle = std::sqrt(dot(step, step));
    Doubles out(len);
    for (size_t e = 0; e < len; ++e) {
        out[e] = length * (std::cos(angle) * start[e] + std::sin(angle) / angle * step[e]);
    }
    return out;
}

Rows spread_rows(size_t count, size_t len, float spread) {
    const Floats shared = fixture_values(90, int64_t(len));
    Rows rows;
    for (size_t k = 0; k < count; ++k) {
        const Floats own = fixture_values(91 + k, int64_t(len));
        Floats row(len);
        for (size_t e = 0; e < len; ++e) {
            row[e] = shared[e] + own[e] * spread * float(k + 1);
        }
        rows.push_back(row);
    }
    return rows;
}

TEST(Karcher, ReachesTheWeightedSphericalMean) {
    const Rows rows = spread_rows(4, 64, 0.6f);
    const Floats weights = {1, 2, 3, 2};
    const Floats out = run(blend_karcher, spec_with(100, weights), rows);
    // At the mean the weighted log maps cancel, and the length is the weighted mean.
    const Doubles mu = unit(widen(out.data(), out.size()));
    Doubles gradient(64);
    double length = 0.0;
    for (size_t k = 0; k < rows.size(); ++k) {
        const Doubles row = widen(rows[k].data(), 64);
        length += weights[k] / 8.0 * std::sqrt(dot(row, row));
        const Doubles l = log_map(mu, unit(row));
        for (size_t e = 0; e < 64; ++e) {
            gradient[e] += weights[k] / 8.0 * l[e];
        }
    }
    EXPECT_LT(std::sqrt(dot(gradient, gradient)), 1e-6);
    EXPECT_NEAR(std::sqrt(dot(mu, mu)) * length,
                std::sqrt(dot(widen(out.data(), 64), widen(out.data(), 64))), 1e-6 * length);
    // The default cap of 10 steps is enough for rows this close; one step is not.
    EXPECT_EQ(run(blend_karcher, spec_with(10, weights), rows), out);
    EXPECT_NE(run(blend_karcher, spec_with(1, weights), rows), out);
    // One step is multislerp, no step the normalised linear mean.
    EXPECT_EQ(run(blend_karcher, spec_with(1, weights), rows),
              run(blend_multislerp, spec_with(0, weights), rows));
    const Doubles a = widen(rows[0].data(), 64), b = widen(rows[1].data(), 64);
    Doubles chord(64);
    for (size_t e = 0; e < 64; ++e) {
        chord[e] = unit(a)[e] + unit(b)[e];
    }
    expect_close(run(blend_karcher, spec_with(0), {rows[0], rows[1]}),
                 scaled(unit(chord), (std::sqrt(dot(a, a)) + std::sqrt(dot(b, b))) / 2));
}

TEST(SphericalMeans, TwoRowsFollowTheArcAndAverageTheLengths) {
    const Rows rows = spread_rows(2, 48, 1.5f);  // about 60 degrees apart
    const Doubles a = widen(rows[0].data(), 48), b = widen(rows[1].data(), 48);
    const double la = std::sqrt(dot(a, a)), lb = std::sqrt(dot(b, b));
    const Doubles b_as_long_as_a = scaled(unit(b), la);
    const Rows equal = {rows[0], Floats(b_as_long_as_a.begin(), b_as_long_as_a.end())};
    for (float t : {0.0f, 0.2f, 0.5f, 0.9f, 1.0f}) {
        SCOPED_TRACE(t);
        const Doubles expected = scaled(unit_slerp(unit(a), unit(b), t), (1 - t) * la + t * lb);
        for (Kernel kernel : {blend_karcher, blend_multislerp}) {
            expect_close(run(kernel, spec_with(kernel == blend_karcher ? 10 : 0, {1 - t, t}), rows),
                         expected);
        }
        // Rows of equal length: slerp itself, within rounding.
        expect_close(run(blend_multislerp, spec_with(0, {1 - t, t}), equal),
                     widen(run(blend_slerp, spec_with(t), equal).data(), 48));
    }
}

TEST(Multislerp, IsOneStepOfTheMeanOnRowsOrOnTaskVectors) {
    const Rows rows = spread_rows(4, 40, 0.8f);
    std::vector<Doubles> wide, deltas;
    for (const auto& r : rows) {
        wide.push_back(widen(r.data(), 40));
    }
    for (size_t k = 1; k < 4; ++k) {
        Floats d(40);
        for (size_t e = 0; e < 40; ++e) {
            d[e] = rows[k][e] - rows[0][e];
        }
        deltas.push_back(widen(d.data(), 40));
    }
    expect_close(run(blend_multislerp, spec_with(0, {1, 3, 2, 2}), rows),
                 one_step_mean(wide, {0.125, 0.375, 0.25, 0.25}));
    // Relative to the base: the base's weight is not read, the rest are normalised.
    Doubles expected = one_step_mean(deltas, {0.5, 0.25, 0.25});
    for (size_t e = 0; e < 40; ++e) {
        expected[e] += rows[0][e];
    }
    expect_close(run(blend_multislerp, spec_with(1, {9, 2, 1, 1}), rows), expected);
    // One donor relative to the base: the donor.
    expect_close(run(blend_multislerp, spec_with(1), {rows[0], rows[2]}), wide[2]);
}

TEST(SphericalMeans, Edges) {
    const Floats a = fixture_values(31, 24), b = fixture_values(32, 24);
    Floats half(24), negated(24), sum(24), half_b(24);
    for (size_t e = 0; e < 24; ++e) {
        half[e] = a[e] * 0.5f, negated[e] = -a[e], sum[e] = a[e] + b[e];
        half_b[e] = a[e] + b[e] * 0.5f;
    }
    const Floats zero(24);
    const struct {
        const char* what;
        Rows sources;
        Floats weights;
        Floats expected;
    } cases[] = {
        {"identical rows", {a, a, a}, {}, a},
        {"a zero row adds length 0 and no direction", {a, zero}, {}, half},
        {"opposite rows of equal weight: the linear mean", {a, negated}, {}, zero},
        {"all rows zero", {zero, zero}, {}, zero},
        {"negative weights count as 0", {a, b}, {1, -2}, a},
        {"no weight above 0: equal weights", {a, a}, {0, -1}, a},
        {"a weight of 0 leaves the row out", {b, a, b}, {0, 1, 0}, a},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (Kernel kernel : {blend_karcher, blend_multislerp}) {
            const Floats out =
                run(kernel, spec_with(kernel == blend_karcher ? 10 : 0, c.weights), c.sources);
            expect_close(out, widen(c.expected.data(), 24));
        }
    }
    // Relative to the base, a zero task vector has length 0 and no direction too.
    expect_close(run(blend_multislerp, spec_with(1), {a, a, sum}), widen(half_b.data(), 24));
}

// base + slerp(donor 1 - base, donor 2 - base, w2 / (w1 + w2)), in double.
Doubles reference_nuslerp(const Rows& s, double t) {
    const size_t len = s[0].size();
    Doubles d1(len), d2(len), out(len);
    for (size_t e = 0; e < len; ++e) {
        d1[e] = s[1][e] - s[0][e], d2[e] = s[2][e] - s[0][e];
    }
    const double n1 = std::sqrt(dot(d1, d1)), n2 = std::sqrt(dot(d2, d2));
    const double theta = std::acos(dot(d1, d2) / (n1 * n2));
    for (size_t e = 0; e < len; ++e) {
        out[e] = s[0][e] + (std::sin((1 - t) * theta) * d1[e] + std::sin(t * theta) * d2[e]) /
                               std::sin(theta);
    }
    return out;
}

TEST(Nuslerp, SlerpsTheTaskVectorsByTheDonorWeights) {
    const Rows s = {fixture_values(41, 32), fixture_values(42, 32), fixture_values(43, 32),
                    fixture_values(44, 32)};
    const struct {
        Floats weights;
        double t;
    } cases[] = {{{}, 0.5}, {{5, 1, 3}, 0.75}, {{0, 2}, 1.0 / 3}, {{0, 1, -1}, 0.5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.t);
        // A third donor is not read.
        expect_close(run(blend_nuslerp, spec_with(0, c.weights), s), reference_nuslerp(s, c.t));
    }
    // One donor: the donor. Opposite task vectors at 0.5: the base.
    EXPECT_EQ(run(blend_nuslerp, spec_with(0), {s[0], s[1]}), s[1]);
    Floats mirrored(32);
    for (size_t e = 0; e < 32; ++e) {
        mirrored[e] = s[0][e] - (s[1][e] - s[0][e]);
    }
    expect_close(run(blend_nuslerp, spec_with(0), {s[0], s[1], mirrored}), widen(s[0].data(), 32));
    // A zero task vector: slerp's linear form, so at 0.5 half of the other one.
    Doubles halfway(32);
    for (size_t e = 0; e < 32; ++e) {
        halfway[e] = s[0][e] + (double(s[2][e]) - s[0][e]) / 2;
    }
    expect_close(run(blend_nuslerp, spec_with(0), {s[0], s[0], s[2]}), halfway);
}

TEST(SplitCalls, NewerMethodsGiveTheSameBytesHoweverRowsAreCut) {
    const int64_t rows = 40, row_len = 300;
    Rows sources;
    for (uint64_t s = 0; s < 4; ++s) {
        sources.push_back(fixture_values(70 + s, rows * row_len));
    }
    const std::vector<int64_t> cut = {0, 1, 13, 14, 39, 40};
    const struct {
        Kernel kernel;
        float t;
    } kernels[] = {{blend_model_stock, 0}, {blend_sce, 0.3f},     {blend_karcher, 10},
                   {blend_multislerp, 0},  {blend_multislerp, 1}, {blend_nuslerp, 0}};
    for (const auto& k : kernels) {
        const MethodSpec spec = spec_with(k.t, {1, 0.5f, 2, 1});
        Floats whole(sources[0].size()), pieces(sources[0].size(), -1.0f);
        run_range(k.kernel, spec, sources, whole, 0, rows, row_len);
        for (size_t c = 0; c + 1 < cut.size(); ++c) {
            run_range(k.kernel, spec, sources, pieces, cut[c], cut[c + 1] - cut[c], row_len);
        }
        EXPECT_EQ(std::memcmp(whole.data(), pieces.data(), whole.size() * 4), 0) << k.t;
    }
}

}  // namespace
}  // namespace tevrin::testing
