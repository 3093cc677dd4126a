// compare_sources against figures computed here from the decoded tensors.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <stdexcept>

#include "fuse/compare.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

struct Expected {
    double cosine;
    double distance;
};

// The figures the straightforward way, in long double over the whole tensor.
Expected expected_figures(const std::vector<float>& r, const std::vector<float>& s) {
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

TEST_F(CompareTest, IdenticalSourcesGiveCosineOneAndDistanceZero) {
    for (const ggml_type type : {GGML_TYPE_F32, GGML_TYPE_F16, GGML_TYPE_Q8_0, GGML_TYPE_Q4_K}) {
        const std::string a = dir.file("a.gguf"), b = dir.file("b.gguf");
        write_fixture(llama_fixture(3, 256, type, 5), a);
        write_fixture(llama_fixture(3, 256, type, 5), b);
        const Comparison c = compare_sources({a, b, a}, 2, nullptr, {});
        ASSERT_EQ(c.tensors.size(), 12u);
        for (const auto& t : c.tensors) {
            for (const PairFigures& f : t.donors) {
                EXPECT_EQ(f.status, PairStatus::compared) << t.name;
                EXPECT_EQ(f.cosine, 1.0) << t.name << " " << ggml_type_name(type);
                EXPECT_EQ(f.distance, 0.0) << t.name;
            }
        }
        ASSERT_EQ(c.layers.size(), 4u);  // layers 0-2 and the rest
        for (const auto& layer : c.layers) {
            for (const SummaryRow& row : layer.donors) {
                EXPECT_EQ(row[kOverallColumn].cosine, 1.0);
                EXPECT_EQ(row[kOverallColumn].distance, 0.0);
            }
        }
    }
}

// A donor made as base + known delta, in shapes that cross every boundary of the
// work: rows longer than a block, row lengths that are no multiple of the eight
// lanes, a tensor of several chunks, quantized types decoded on both sides.
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
        {"blk.1.ffn_down.weight", GGML_TYPE_F16, {64, 8, 2, 3}, 0.1f},
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
    const Comparison result = compare_sources({a, b}, 2, nullptr, {});
    for (const auto& c : cases) {
        const Expected e =
            expected_figures(read_tensor_floats(a, c.name), read_tensor_floats(b, c.name));
        const PairFigures& f = find(result, c.name).donors[0];
        EXPECT_NEAR(f.cosine, e.cosine, 1e-12) << c.name;
        EXPECT_NEAR(f.distance, e.distance, 1e-12 * e.distance) << c.name;
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
}

TEST_F(CompareTest, FiguresDoNotDependOnTheThreadCount) {
    FixtureModel base = fixture_model(), donor = fixture_model();
    for (const auto& [name, ne] : std::vector<std::pair<std::string, std::array<int64_t, 4>>>{
             {"blk.0.attn_q.weight", {1000, 9000, 1, 1}},
             {"blk.0.ffn_up.weight", {24, 701, 1, 1}}}) {
        add_tensor(base, name, GGML_TYPE_F16, ne, 1);
        add_tensor(donor, name, GGML_TYPE_F16, ne, 2);
    }
    const std::string a = dir.file("a.gguf"), b = dir.file("b.gguf");
    write_fixture(base, a);
    write_fixture(donor, b);
    const Comparison one = compare_sources({a, b, a}, 1, nullptr, {});
    for (const int threads : {2, 3, 8}) {
        const Comparison many = compare_sources({a, b, a}, threads, nullptr, {});
        for (size_t t = 0; t < one.tensors.size(); ++t) {
            for (size_t d = 0; d < 2; ++d) {
                EXPECT_EQ(many.tensors[t].donors[d].cosine, one.tensors[t].donors[d].cosine);
                EXPECT_EQ(many.tensors[t].donors[d].distance, one.tensors[t].donors[d].distance);
            }
        }
    }
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
    for (const auto& k : cases) {
        const PairFigures& f = find(c, k.name).donors[0];
        EXPECT_EQ(std::isnan(f.cosine), std::isnan(k.cosine)) << k.name;
        EXPECT_EQ(std::isnan(f.distance), std::isnan(k.distance)) << k.name;
        if (!std::isnan(k.cosine)) {
            EXPECT_EQ(f.cosine, k.cosine) << k.name;
        }
        if (!std::isnan(k.distance)) {
            EXPECT_EQ(f.distance, k.distance) << k.name;
        }
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
        {"blk.3.attn_norm.weight", CompareRole::norm},
        {"blk.3.attn_q_norm.weight", CompareRole::norm},
        {"blk.3.ffn_gate_inp.weight", CompareRole::feed_forward},
        {"blk.3.ffn_norm.weight", CompareRole::norm},
        {"blk.3.ssm_in.weight", CompareRole::other},
        {"output_norm.weight", CompareRole::norm},
        {"token_embd.weight", CompareRole::other},
        {"attn_q.weight", CompareRole::attention},
    };
    for (const auto& [name, role] : cases) {
        EXPECT_EQ(tensor_role(name), role) << name;
    }
}

TEST_F(CompareTest, FailuresNameTheCause) {
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(1, 32, GGML_TYPE_F32, 1), a);
    const struct {
        std::vector<std::string> paths;
        std::string message;
    } cases[] = {
        {{a}, "compare takes 2 to 8 sources"},
        {std::vector<std::string>(9, a), "compare takes 2 to 8 sources"},
        {{a, dir.file("none.gguf")}, "not a valid GGUF: " + dir.file("none.gguf")},
    };
    for (const auto& c : cases) {
        try {
            compare_sources(c.paths, 1, nullptr, {});
            ADD_FAILURE() << c.message;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
