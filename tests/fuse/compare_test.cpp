// compare_sources against figures computed here from the decoded tensors.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>

#include "fuse/compare.h"
#include "fuse/compare_sums.h"
#include "fuse/f16_rows.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// Cosine and distance the straightforward way, in long double over the tensor.
std::pair<double, double> expected_figures(const std::vector<float>& r,
                                           const std::vector<float>& s) {
    long double rr = 0, ss = 0, rs = 0, dd = 0;
    for (size_t i = 0; i < r.size(); ++i) {
        rr += (long double)r[i] * r[i];
        ss += (long double)s[i] * s[i];
        rs += (long double)r[i] * s[i];
        dd += ((long double)s[i] - r[i]) * ((long double)s[i] - r[i]);
    }
    return {double(rs / std::sqrt(rr * ss)), double(std::sqrt(dd / rr))};
}

const TensorComparison& find(const Comparison& c, const std::string& name) {
    for (const auto& t : c.tensors) {
        if (t.name == name) {
            return t;
        }
    }
    throw std::runtime_error("no entry " + name);
}

struct CompareTest : ::testing::Test {
    TempDir dir;

    std::vector<std::string> write_models(const std::vector<const FixtureModel*>& models) {
        std::vector<std::string> paths;
        for (const FixtureModel* m : models) {
            paths.push_back(dir.file("m" + std::to_string(paths.size()) + ".gguf"));
            write_fixture(*m, paths.back());
        }
        return paths;
    }
};

// A donor made as base + known delta, and the base itself as a second donor, in
// shapes that cross every boundary of the work: rows longer than a block, row
// lengths that are no multiple of the sixteen lanes, a tensor of several chunks,
// F16 summed as stored, other types decoded. The figures are the same on any
// number of threads.
TEST_F(CompareTest, DonorOfKnownDeltaGivesTheExpectedFigures) {
    const struct {
        const char* name;
        ggml_type type;
        std::array<int64_t, 4> ne;
        float delta;  // scale of the difference
    } cases[] = {
        {"blk.0.attn_q.weight", GGML_TYPE_F32, {37, 11, 1, 1}, 0.01f},
        {"blk.0.attn_k.weight", GGML_TYPE_F32, {20000, 3, 1, 1}, 0.5f},
        {"blk.0.ffn_up.weight", GGML_TYPE_F32, {1024, 4500, 1, 1}, 1e-4f},  // > 1 chunk
        {"blk.1.ffn_down.weight", GGML_TYPE_F16, {70, 8, 2, 3}, 0.1f},
        {"blk.1.attn_norm.weight", GGML_TYPE_F32, {5, 1, 1, 1}, 2.0f},
        {"blk.1.attn_v.weight", GGML_TYPE_Q8_0, {256, 40, 1, 1}, 0.05f},
        {"blk.1.ffn_gate.weight", GGML_TYPE_Q4_K, {512, 10, 1, 1}, 0.3f},
        {"token_embd.weight", GGML_TYPE_F16, {48, 16, 1, 1}, 1.0f},
    };
    FixtureModel base = fixture_model(), donor = fixture_model();
    uint64_t seed = 10;
    for (const auto& c : cases) {
        const int64_t n = c.ne[0] * c.ne[1] * c.ne[2] * c.ne[3];
        FixtureTensor& b = add_tensor(base, c.name, c.type, c.ne);
        b.values = fixture_values(++seed, n);
        FixtureTensor& d = add_tensor(donor, c.name, c.type, c.ne);
        d.values = fixture_values(++seed, n);
        for (int64_t i = 0; i < n; ++i) {
            d.values[size_t(i)] = b.values[size_t(i)] + c.delta * d.values[size_t(i)];
        }
    }
    const std::string a = dir.file("a.gguf"), b = dir.file("b.gguf");
    write_fixture(base, a);
    write_fixture(donor, b);
    const Comparison result = compare_sources({a, b, a}, 2, nullptr, {});
    for (const auto& c : cases) {
        const auto [cosine, distance] =
            expected_figures(read_tensor_floats(a, c.name), read_tensor_floats(b, c.name));
        const TensorComparison& t = find(result, c.name);
        EXPECT_NEAR(t.donors[0].cosine, cosine, 1e-12) << c.name;
        EXPECT_NEAR(t.donors[0].distance, distance, 1e-12 * distance) << c.name;
        EXPECT_EQ(t.donors[1].cosine, 1.0) << c.name;
        EXPECT_EQ(t.donors[1].distance, 0.0) << c.name;
    }
    for (const int threads : {1, 3}) {
        const Comparison other = compare_sources({a, b, a}, threads, nullptr, {});
        for (size_t t = 0; t < result.tensors.size(); ++t) {
            EXPECT_EQ(other.tensors[t].donors[0].cosine, result.tensors[t].donors[0].cosine);
            EXPECT_EQ(other.tensors[t].donors[0].distance, result.tensors[t].donors[0].distance);
        }
    }
    // Means weighted by parameters; "other" tensors count only toward overall.
    const SummaryRow& layer0 = result.layers[0].donors[0];
    const double q = 37 * 11, k = 60000, up = 1024 * 4500;
    const PairFigures fq = find(result, "blk.0.attn_q.weight").donors[0];
    const PairFigures fk = find(result, "blk.0.attn_k.weight").donors[0];
    const PairFigures fu = find(result, "blk.0.ffn_up.weight").donors[0];
    EXPECT_NEAR(layer0[0].cosine, (q * fq.cosine + k * fk.cosine) / (q + k), 1e-15);
    EXPECT_NEAR(layer0[0].distance, (q * fq.distance + k * fk.distance) / (q + k), 1e-15);
    EXPECT_EQ(layer0[1].distance, fu.distance);
    EXPECT_EQ(layer0[2].params, 0);
    EXPECT_NEAR(layer0[kOverallColumn].distance,
                (q * fq.distance + k * fk.distance + up * fu.distance) / (q + k + up), 1e-15);
    const LayerSummary& rest = result.layers.back();
    EXPECT_EQ(rest.layer, -1);
    EXPECT_EQ(rest.donors[0][0].params + rest.donors[0][1].params + rest.donors[0][2].params, 0);
    EXPECT_EQ(rest.donors[0][kOverallColumn].cosine,
              find(result, "token_embd.weight").donors[0].cosine);
    EXPECT_EQ(result.overall[1][kOverallColumn].cosine, 1.0);
    EXPECT_EQ(result.overall[1][kOverallColumn].distance, 0.0);
}

TEST_F(CompareTest, TensorsNotSharedAreListedWithTheReason) {
    FixtureModel ref = fixture_model(), one = fixture_model(), two = fixture_model();
    add_tensor(ref, "blk.0.attn_q.weight", GGML_TYPE_F32, {8, 4, 1, 1});
    add_tensor(ref, "blk.0.ffn_up.weight", GGML_TYPE_F32, {8, 4, 1, 1});
    add_tensor(ref, "ids", GGML_TYPE_I32, {4, 1, 1, 1}).raw.assign(16, 1);
    add_tensor(one, "blk.0.attn_q.weight", GGML_TYPE_F32, {4, 8, 1, 1});
    add_tensor(one, "ids", GGML_TYPE_I32, {4, 1, 1, 1}).raw.assign(16, 1);
    add_tensor(one, "extra", GGML_TYPE_F32, {8, 1, 1, 1});
    add_tensor(two, "blk.0.ffn_up.weight", GGML_TYPE_F32, {8, 4, 1, 1});
    add_tensor(two, "extra", GGML_TYPE_F32, {8, 1, 1, 1});
    const Comparison c = compare_sources(write_models({&ref, &one, &two}), 2, nullptr, {});
    const struct {
        const char* name;
        std::vector<bool> present;
        PairStatus one, two;
    } cases[] = {
        {"blk.0.attn_q.weight",
         {true, true, false},
         PairStatus::shape_differs,
         PairStatus::missing},
        {"blk.0.ffn_up.weight", {true, false, true}, PairStatus::missing, PairStatus::compared},
        {"ids", {true, true, false}, PairStatus::not_decodable, PairStatus::missing},
        {"extra", {false, true, true}, PairStatus::no_reference, PairStatus::no_reference},
    };
    ASSERT_EQ(c.tensors.size(), 4u);
    for (const auto& k : cases) {
        const TensorComparison& t = find(c, k.name);
        EXPECT_EQ(t.present, k.present) << k.name;
        EXPECT_EQ(t.donors[0].status, k.one) << k.name;
        EXPECT_EQ(t.donors[1].status, k.two) << k.name;
    }
    EXPECT_EQ(c.layers[0].donors[0][kOverallColumn].params, 0);  // nothing compared with 1
    EXPECT_EQ(c.overall[1][kOverallColumn].params, 32);
}

TEST_F(CompareTest, UndefinedFiguresStayOutOfTheMeans) {
    FixtureModel ref = fixture_model(), donor = fixture_model();
    const struct {
        const char* name;
        float ref, donor;
        double cosine, distance;  // NaN: undefined
    } cases[] = {
        {"blk.0.attn_q.weight", 0.0f, 0.0f, 1.0, 0.0},
        {"blk.0.attn_k.weight", 0.0f, 1.0f, NAN, NAN},
        {"blk.0.attn_v.weight", 1.0f, 0.0f, NAN, 1.0},
        {"blk.0.attn_output.weight", 1.0f, INFINITY, NAN, NAN},
        {"blk.0.ffn_up.weight", 2.0f, -2.0f, -1.0, 2.0},
    };
    for (const auto& k : cases) {
        add_tensor(ref, k.name, GGML_TYPE_F32, {8, 2, 1, 1}).values.assign(16, k.ref);
        add_tensor(donor, k.name, GGML_TYPE_F32, {8, 2, 1, 1}).values.assign(16, k.donor);
    }
    const Comparison c = compare_sources(write_models({&ref, &donor}), 1, nullptr, {});
    auto same = [](double got, double want) {
        return std::isnan(want) ? std::isnan(got) : got == want;
    };
    for (const auto& k : cases) {
        const PairFigures& f = find(c, k.name).donors[0];
        EXPECT_TRUE(same(f.cosine, k.cosine)) << k.name << " " << f.cosine;
        EXPECT_TRUE(same(f.distance, k.distance)) << k.name << " " << f.distance;
    }
    const SummaryRow& row = c.layers[0].donors[0];
    EXPECT_EQ(row[0].params, 16);  // attn_q only
    EXPECT_EQ(row[kOverallColumn].params, 32);
    EXPECT_EQ(row[kOverallColumn].cosine, 0.0);  // mean of 1 and -1
}

TEST_F(CompareTest, ProgressRisesToTheEndAndCancelStopsAtAChunk) {
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(2, 1024, GGML_TYPE_F16, 1), a);
    std::vector<FuseProgress> events;
    compare_sources({a, a}, 2, nullptr, [&](const FuseProgress& p) { events.push_back(p); });
    ASSERT_GE(events.size(), 3u);
    for (size_t i = 1; i < events.size(); ++i) {
        EXPECT_GE(events[i].fraction, events[i - 1].fraction) << events[i].label;
    }
    EXPECT_EQ(events.back().fraction, 1.0f);
    EXPECT_EQ(events.back().label, "Compared");

    std::atomic<bool> cancel{false};
    int after = 0;
    try {
        compare_sources({a, a}, 2, &cancel, [&](const FuseProgress& p) {
            after += cancel.load() ? 1 : 0;
            cancel = cancel.load() || p.label == "Comparing blk.0.attn_q.weight";
        });
        ADD_FAILURE() << "not cancelled";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "cancelled");
    }
    EXPECT_EQ(after, 0);
}

TEST_F(CompareTest, RolesComeFromTheNameSuffix) {
    const std::pair<const char*, CompareRole> cases[] = {
        {"blk.3.attn_q.weight", CompareRole::attention},
        {"blk.3.attn_q_norm.weight", CompareRole::norm},
        {"blk.3.ffn_gate_inp.weight", CompareRole::feed_forward},
        {"blk.3.ssm_in.weight", CompareRole::other},
        {"output_norm.weight", CompareRole::norm},
        {"token_embd.weight", CompareRole::other},
        {"attn_q.weight", CompareRole::attention},
    };
    for (const auto& [name, role] : cases) {
        EXPECT_EQ(tensor_role(name), role) << name;
    }
}

TEST_F(CompareTest, TakesTwoToEightSources) {
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(1, 32, GGML_TYPE_F32, 1), a);
    for (const size_t n : {1, 9}) {
        try {
            compare_sources(std::vector<std::string>(n, a), 1, nullptr, {});
            ADD_FAILURE() << n;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "compare takes 2 to 8 sources");
        }
    }
}

// The vector paths hold to the plain path bit for bit: row lengths around the
// sixteen lanes, values of every magnitude (so differences round), and F16 rows
// as stored against their decoded floats.
TEST(CompareSums, VectorPathsGiveThePlainPathsBits) {
    std::mt19937 gen(7);
    std::uniform_real_distribution<float> mantissa(-1.0f, 1.0f);
    for (const int64_t count : {1, 15, 16, 17, 100, 2053}) {
        std::vector<float> floats(size_t(4 * count)), decoded(floats.size());
        std::vector<uint16_t> halves(floats.size());
        for (size_t i = 0; i < floats.size(); ++i) {
            floats[i] = std::ldexp(mantissa(gen), int(gen() % 121) - 60);
            halves[i] = uint16_t(gen() % 0x7c00 | (gen() & 0x8000));  // finite
        }
        f16_row_to_floats(reinterpret_cast<const uint8_t*>(halves.data()), decoded.data(),
                          4 * count);
        // Row 0 and then row 3 against rows 1 to 3, into one block's lanes.
        auto sums = [count](const auto* rows, const auto& add) {
            SumLanes lanes;
            const std::array donors = {rows + count, rows + 2 * count, rows + 3 * count};
            add(lanes, rows, donors.data());
            add(lanes, donors[2], donors.data());
            return lane_totals(lanes, 3);
        };
        auto floats_by = [count](SumPath path) {
            return [count, path](SumLanes& lanes, const float* r, const float* const* d) {
                add_row(lanes, r, d, 3, count, path);
            };
        };
        const BlockSums plain = sums(floats.data(), floats_by(SumPath::plain));
        const BlockSums fastest = sums(floats.data(), floats_by(SumPath::fastest));
        EXPECT_EQ(std::memcmp(&plain, &fastest, sizeof plain), 0) << count;
        if (adds_half_rows()) {
            const BlockSums stored = sums(halves.data(), [count](SumLanes& lanes, const uint16_t* r,
                                                                 const uint16_t* const* d) {
                add_half_row(lanes, r, d, 3, count);
            });
            const BlockSums from_floats = sums(decoded.data(), floats_by(SumPath::plain));
            EXPECT_EQ(std::memcmp(&stored, &from_floats, sizeof plain), 0) << count;
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
