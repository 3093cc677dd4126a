// The row pipeline seen from the output file: copies, re-encodes, source
// selection, weights that follow their sources, chunking and thread splits.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <tuple>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/f16_rows.h"
#include "fuse/fuse.h"
#include "fuse/parallel_rows.h"
#include "fuse/write_tensor.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

FuseResult run(const std::vector<std::string>& sources, const std::string& recipe,
               const std::string& out, int threads = 2) {
    return fuse(sources, recipe, out, threads, nullptr, {});
}

// Three F32 sources with one 2-D tensor "w"; source `missing` lacks it.
struct ThreeSources {
    TempDir dir;
    std::vector<std::string> paths;
    std::vector<std::vector<float>> values;
    explicit ThreeSources(int missing = -1, int64_t row_len = 64, int64_t rows = 4) {
        for (int s = 0; s < 3; ++s) {
            FixtureModel m = fixture_model();
            if (s != missing) {
                add_tensor(m, "w", GGML_TYPE_F32, {row_len, rows, 1, 1}, 10 + s);
            }
            add_tensor(m, "n", GGML_TYPE_F32, {row_len, 1, 1, 1}, 20 + s);
            values.push_back(fixture_values(10 + s, row_len * rows));
            paths.push_back(dir.file("s" + std::to_string(s) + ".gguf"));
            write_fixture(m, paths.back());
        }
    }
    std::string out() const { return dir.file("out.gguf"); }
};

std::vector<float> reference(const MethodSpec& spec, const std::vector<const float*>& rows,
                             const std::string& name, int64_t n_rows, int64_t row_len) {
    std::vector<float> out(size_t(n_rows * row_len));
    blend_rows(spec, tensor_seed(42, name), 0, rows, out.data(), n_rows, row_len);
    return out;
}

TEST(WriteTensor, SingleSourceInTheOutputTypeIsCopiedBitExact) {
    TempDir dir;
    FixtureModel m = fixture_model();
    add_tensor(m, "q", GGML_TYPE_Q4_K, {256, 3, 1, 1}, 5);
    add_tensor(m, "h", GGML_TYPE_F16, {64, 2, 1, 1}, 6);
    write_fixture(m, dir.file("a.gguf"));
    FuseResult r = run({dir.file("a.gguf")}, "out keep\ndefault ties 0.3", dir.file("o.gguf"));
    ASSERT_TRUE(r.ok) << r.message;
    for (const char* name : {"q", "h"}) {
        EXPECT_EQ(read_tensor_bytes(dir.file("o.gguf"), name),
                  read_tensor_bytes(dir.file("a.gguf"), name));
    }
    // Another output type passes through decode and encode with the base alone.
    r = run({dir.file("a.gguf")}, "out f32", dir.file("o.gguf"));
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(read_tensor_floats(dir.file("o.gguf"), "h"),
              read_tensor_floats(dir.file("a.gguf"), "h"));
}

TEST(WriteTensor, PickFallsBackToTheBaseWhenItsSourceLacksTheTensor) {
    ThreeSources three(2);
    ASSERT_TRUE(run(three.paths, "out f32\ndefault pick 2", three.out()).ok);
    EXPECT_EQ(read_tensor_floats(three.out(), "w"), three.values[0]);

    ThreeSources gap(1);
    ASSERT_TRUE(run(gap.paths, "out f32\ndefault pick 2", gap.out()).ok);
    EXPECT_EQ(read_tensor_floats(gap.out(), "w"), gap.values[2]);
}

TEST(WriteTensor, WeightsFollowTheirSourcesWhenOneDropsOut) {
    ThreeSources three(1);
    const FuseResult r = run(three.paths, "out f32\ndefault linear 0.5,0.25,0.25", three.out());
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.fallback, 1);
    MethodSpec spec;
    spec.weights = {0.5f, 0.25f};
    const std::vector<const float*> base_and_2 = {three.values[0].data(), three.values[2].data()};
    EXPECT_EQ(read_tensor_floats(three.out(), "w"), reference(spec, base_and_2, "w", 4, 64));
    // slerp runs on the first two sources that have the tensor.
    ASSERT_TRUE(run(three.paths, "out f32\ndefault slerp 0.3", three.out()).ok);
    spec.method = BlendMethod::slerp;
    spec.t = 0.3f;
    EXPECT_EQ(read_tensor_floats(three.out(), "w"), reference(spec, base_and_2, "w", 4, 64));

    // Sources behind a short list: 0.0 for linear, 1.0 for the task-vector methods.
    ThreeSources all;
    ASSERT_TRUE(run(all.paths, "out f32\ndefault ties 0.5 1,2", all.out()).ok);
    spec.method = BlendMethod::ties;
    spec.t = 0.5f;
    spec.weights = {1.0f, 2.0f, 1.0f};
    const std::vector<const float*> rows = {all.values[0].data(), all.values[1].data(),
                                            all.values[2].data()};
    EXPECT_EQ(read_tensor_floats(all.out(), "w"), reference(spec, rows, "w", 4, 64));
}

TEST(WriteTensor, ChunkedTensorsMatchOneWholeBlend) {
    // 3000-element rows give chunks of 1398 rows: boundaries that cut chaos blocks.
    const int64_t row_len = 3000, rows = 1500;
    ThreeSources three(-1, row_len, rows);
    for (const std::string method : {"chaos 0.6", "dare 0.4", "della 0.3"}) {
        SCOPED_TRACE(method);
        ASSERT_TRUE(run(three.paths, "out f32\ndefault " + method, three.out(), 3).ok);
        MethodSpec spec;
        spec.method = method[0] == 'c'   ? BlendMethod::chaos
                      : method[1] == 'a' ? BlendMethod::dare
                                         : BlendMethod::della;
        spec.t = std::stof(method.substr(method.find(' ') + 1));
        const std::vector<const float*> srcs = {three.values[0].data(), three.values[1].data(),
                                                three.values[2].data()};
        EXPECT_TRUE(read_tensor_floats(three.out(), "w") ==
                    reference(spec, srcs, "w", rows, row_len));
    }
}

TEST(WriteTensor, EmptyAndOneDimensionalTensors) {
    TempDir dir;
    FixtureModel m = fixture_model();
    add_tensor(m, "empty", GGML_TYPE_F32, {0, 64, 1, 1});
    add_tensor(m, "bias", GGML_TYPE_F16, {96, 1, 1, 1});
    write_fixture(m, dir.file("a.gguf"));
    const FuseResult r =
        run({dir.file("a.gguf"), dir.file("a.gguf")}, "out q8_0", dir.file("o.gguf"));
    ASSERT_TRUE(r.ok) << r.message;
    GgufHandle g = read_gguf_header(dir.file("o.gguf").c_str());
    ASSERT_TRUE(g);
    EXPECT_EQ(gguf_get_tensor_type(g.get(), 1), GGML_TYPE_F32);  // 1-D tensors are always F32
    EXPECT_EQ(r.bytes, read_file(dir.file("o.gguf")).size());
}

// Data that ggml cannot decode, or that would make its grid-searching quantizers
// (iq3_xxs, iq3_s, iq2_s, iq1_m) abort, fails the run and leaves no file.
TEST(WriteTensor, DataGgmlCannotHandleFailsTheRun) {
    TempDir dir;
    FixtureModel base = fixture_model();
    add_tensor(base, "w", GGML_TYPE_IQ3_XXS, {256, 2, 1, 1});
    add_tensor(base, "i", GGML_TYPE_I32, {8, 2, 1, 1}).raw.assign(64, 0);
    write_fixture(base, dir.file("base.gguf"));
    const std::string out = dir.file("out.gguf");
    const struct {
        float value;
        std::string recipe, message;
    } cases[] = {
        {0.5f, "out keep", "ok"},  // i32 copied whole, iq3_xxs re-encoded
        {1e13f, "out keep", "cannot quantize to type iq3_xxs: value out of range"},
        {NAN, "out keep", "cannot quantize to type iq3_xxs: value out of range"},
        {0.5f, "out f16", "cannot dequantize type i32"},
    };
    for (const auto& c : cases) {
        FixtureModel donor = fixture_model();
        add_tensor(donor, "w", GGML_TYPE_F32, {256, 2, 1, 1}).values.assign(512, c.value);
        write_fixture(donor, dir.file("donor.gguf"));
        const FuseResult r = run({dir.file("base.gguf"), dir.file("donor.gguf")}, c.recipe, out);
        EXPECT_EQ(r.message, c.message) << c.value;
        EXPECT_EQ(file_exists(out), r.ok);
        std::remove(out.c_str());
    }
}

TEST(F16Rows, EveryHalfConvertsExactlyAsGgmlDoes) {
    std::vector<uint16_t> half(65536 + 5);  // odd length: the tail path too
    for (size_t i = 0; i < half.size(); ++i) {
        half[i] = uint16_t(i);
    }
    std::vector<float> fast(half.size()), reference(half.size());
    const auto* bytes = reinterpret_cast<const uint8_t*>(half.data());
    f16_row_to_floats(bytes, fast.data(), int64_t(half.size()));
    ggml_get_type_traits(GGML_TYPE_F16)->to_float(bytes, reference.data(), int64_t(half.size()));
    EXPECT_EQ(std::memcmp(fast.data(), reference.data(), fast.size() * sizeof(float)), 0);
}

TEST(ParallelRows, SplitsIntoEqualContiguousRangesAndJoinsFailures) {
    std::vector<std::pair<int64_t, int64_t>> seen(8);
    std::atomic<int> calls{0};
    parallel_rows(8, 10, [&](int64_t lo, int64_t hi) {
        seen[size_t(lo / 2)] = {lo, hi};
        ++calls;
    });
    EXPECT_EQ(calls.load(), 5);  // 10 rows on 8 workers: 5 ranges of 2 rows
    for (int64_t i = 0; i < 5; ++i) {
        EXPECT_EQ(seen[size_t(i)], std::make_pair(2 * i, 2 * i + 2));
    }
    EXPECT_THROW(parallel_rows(4, 100,
                               [](int64_t lo, int64_t) {
                                   if (lo > 0)
                                       throw std::runtime_error("worker failed");
                               }),
                 std::runtime_error);
}

}  // namespace
}  // namespace tevrin::testing
