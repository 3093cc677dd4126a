// model_stock and sce against plain double-precision references of their
// definitions, per row, on small hand-made rows and at their edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/blend/kernel_call.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// The donors' task vectors of row r, in double.
std::vector<Doubles> row_deltas(const Rows& sources, size_t r, size_t len) {
    std::vector<Doubles> d;
    for (size_t k = 1; k < sources.size(); ++k) {
        Doubles v(len);
        for (size_t e = 0; e < len; ++e) {
            v[e] = double(sources[k][r * len + e]) - double(sources[0][r * len + e]);
        }
        d.push_back(v);
    }
    return d;
}

// t = N cos / (1 + (N - 1) cos) from the mean pairwise cosine, clamped to [0, 1]
// with zero vectors orthogonal to all; one donor: t = 1.
Doubles reference_model_stock(const Rows& sources, size_t len) {
    const size_t rows = sources[0].size() / len, n = sources.size() - 1;
    Doubles out(sources[0].size());
    for (size_t r = 0; r < rows; ++r) {
        const auto d = row_deltas(sources, r, len);
        double t = 1.0;
        if (n > 1) {
            double sum = 0.0;
            for (size_t i = 0; i < n; ++i) {
                for (size_t j = i + 1; j < n; ++j) {
                    const double norms = std::sqrt(dot(d[i], d[i]) * dot(d[j], d[j]));
                    sum += norms > 0 ? dot(d[i], d[j]) / norms : 0.0;
                }
            }
            const double c = std::clamp(sum / double(n * (n - 1) / 2), 0.0, 1.0);
            t = double(n) * c / (1.0 + double(n - 1) * c);
        }
        for (size_t e = 0; e < len; ++e) {
            double mean = 0.0;
            for (size_t k = 1; k <= n; ++k) {
                mean += sources[k][r * len + e];
            }
            out[r * len + e] = t * mean / double(n) + (1.0 - t) * sources[0][r * len + e];
        }
    }
    return out;
}

// Donor k's row: base + a shared direction * `along` + its own noise * `own`.
Floats donor_row(const Floats& base, uint64_t seed, float along, float own) {
    const Floats shared = fixture_values(500, int64_t(base.size()));
    const Floats noise = fixture_values(seed, int64_t(base.size()));
    Floats row(base.size());
    for (size_t e = 0; e < row.size(); ++e) {
        row[e] = base[e] + shared[e] * along + noise[e] * own;
    }
    return row;
}

TEST(ModelStock, MatchesTheDefinitionPerRow) {
    const Floats base = fixture_values(1, 96);
    const Floats v = donor_row(Floats(96), 2, 0.0f, 0.1f);
    Floats plus(96), minus(96);
    for (size_t e = 0; e < 96; ++e) {
        plus[e] = base[e] + v[e], minus[e] = base[e] - v[e];
    }
    const struct {
        const char* what;
        Rows sources;
        size_t row_len;
    } cases[] = {
        {"three donors, rows of 32 with their own angles",
         {base, donor_row(base, 3, 0.05f, 0.02f), donor_row(base, 4, 0.03f, 0.04f),
          donor_row(base, 5, 0.01f, 0.05f)},
         32},
        {"one donor: the donor", {base, plus}, 96},
        {"identical donors: the donor", {base, plus, plus}, 48},
        {"opposite task vectors: the base", {base, plus, minus}, 96},
        {"a donor equal to the base: the base", {base, base, plus}, 96},
        {"all sources equal", {base, base, base}, 96},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Floats out =
            run(spec_of(BlendMethod::model_stock, 0.5f), c.sources, int64_t(c.row_len));
        expect_close(out, reference_model_stock(c.sources, c.row_len));
    }
}

// Select by variance across donors (top `share`, ties at the cut stay), weigh
// donors by their selected squares, erase against the sign of the selected sum
// (a zero sum erases all), add to the base.
Doubles reference_sce(const Rows& sources, float share, size_t len) {
    const size_t rows = sources[0].size() / len, n = sources.size() - 1;
    const auto keep = std::max<size_t>(1, size_t(std::floor(float(len) * share)));
    Doubles out(sources[0].size());
    for (size_t r = 0; r < rows; ++r) {
        auto d = row_deltas(sources, r, len);
        Doubles variance(len);
        for (size_t e = 0; e < len; ++e) {
            double mean = 0.0, squares = 0.0;
            for (const auto& dk : d) {
                mean += dk[e] / double(n);
            }
            for (const auto& dk : d) {
                squares += (dk[e] - mean) * (dk[e] - mean) / double(n);
            }
            variance[e] = squares;
        }
        Doubles sorted = variance;
        std::sort(sorted.rbegin(), sorted.rend());
        Doubles squares(n);
        double total = 0.0;
        for (size_t k = 0; k < n; ++k) {
            for (size_t e = 0; e < len; ++e) {
                d[k][e] = variance[e] >= sorted[keep - 1] ? d[k][e] : 0.0;
            }
            squares[k] = dot(d[k], d[k]);
            total += squares[k];
        }
        for (size_t e = 0; e < len; ++e) {
            double sum = 0.0, merged = 0.0;
            for (size_t k = 0; k < n; ++k) {
                sum += d[k][e];
            }
            for (size_t k = 0; k < n; ++k) {
                if (d[k][e] * sum > 0.0) {
                    merged += squares[k] / total * d[k][e];
                }
            }
            out[r * len + e] = sources[0][r * len + e] + (total > 0 ? merged : 0.0);
        }
    }
    return out;
}

TEST(Sce, MatchesTheDefinitionPerRow) {
    // Dyadic values, so that variances are exact and ties at the cut are real.
    const Floats base = {1, -2, 0.5f, 3, 0, -1, 2, 0.25f};
    const auto shifted = [&](const Floats& by) {
        Floats row = base;
        for (size_t e = 0; e < row.size(); ++e) {
            row[e] += by[e];
        }
        return row;
    };
    const Floats a = shifted({0.5f, -1, 0.25f, 2, -0.5f, 0, 1, -0.25f});
    const Floats b = shifted({1, 1, -0.25f, 0.5f, -0.5f, 0.75f, -1, 0});
    const Floats c = shifted({-0.5f, 0.5f, 0.25f, 1, 0.5f, -0.75f, 1, 0.5f});
    const Floats opposite = shifted({-0.5f, 1, -0.25f, -2, 0.5f, 0, -1, 0.25f});
    const Floats cancel = shifted({-0.5f, 0, 0, 0, 0, 0, 0, 0});  // with a: element 0 sums to 0
    const struct {
        const char* what;
        Rows sources;
        float share;
        size_t row_len;
    } cases[] = {
        {"three donors, all kept", {base, a, b, c}, 1.0f, 8},
        {"three donors, half kept", {base, a, b, c}, 0.5f, 8},
        {"three donors, a quarter of each row of 4", {base, a, b, c}, 0.25f, 4},
        {"two donors, the smallest share", {base, a, c}, 0.0f, 8},
        {"one donor: variance 0, all kept, the donor", {base, a}, 0.5f, 8},
        {"identical donors: the donor", {base, b, b}, 0.25f, 8},
        {"opposite task vectors: the base", {base, a, opposite}, 1.0f, 8},
        {"a zero sum erases both", {base, a, cancel}, 1.0f, 8},
        {"no task vector: the base", {base, base, base}, 0.5f, 8},
    };
    for (const auto& x : cases) {
        SCOPED_TRACE(x.what);
        const Floats out = run(spec_of(BlendMethod::sce, x.share), x.sources, int64_t(x.row_len));
        expect_close(out, reference_sce(x.sources, x.share, x.row_len));
    }
}

}  // namespace
}  // namespace tevrin::testing
