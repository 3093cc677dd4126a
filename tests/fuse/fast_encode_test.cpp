// The vector encoders and decoders against the base library: the same bytes (and
// floats) for every input kind and row length, and a dispatch that covers only
// what it should.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <ggml.h>

#include "fuse/fast_decode.h"
#include "fuse/fast_encode.h"
#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

constexpr ggml_type kTypes[] = {GGML_TYPE_Q8_0, GGML_TYPE_Q2_K, GGML_TYPE_Q3_K,
                                GGML_TYPE_Q4_K, GGML_TYPE_Q5_K, GGML_TYPE_Q6_K};

using Fill = std::function<float(std::mt19937&, int64_t)>;

std::vector<uint8_t> library_bytes(ggml_type type, const std::vector<float>& x, int64_t rows,
                                   int64_t row_len) {
    std::vector<uint8_t> out(ggml_row_size(type, row_len) * size_t(rows));
    ggml_quantize_chunk(type, x.data(), out.data(), 0, rows, row_len, nullptr);
    return out;
}

// Encodes with the vector copy and compares with the library, row by row so a
// failure names the first row that differs.
void expect_same_bytes(ggml_type type, const std::vector<float>& x, int64_t rows, int64_t row_len,
                       const std::string& what) {
    const size_t row_bytes = ggml_row_size(type, row_len);
    std::vector<uint8_t> fast(row_bytes * size_t(rows), 0xAB);
    ASSERT_TRUE(encode_rows_fast(type, x.data(), fast.data(), rows, row_len));
    const std::vector<uint8_t> ref = library_bytes(type, x, rows, row_len);
    for (int64_t r = 0; r < rows; ++r) {
        ASSERT_EQ(0,
                  std::memcmp(fast.data() + r * row_bytes, ref.data() + r * row_bytes, row_bytes))
            << ggml_type_name(type) << " " << what << " row " << r << " of length " << row_len;
    }
}

float normal(std::mt19937& rng) {
    return std::normal_distribution<float>(0.0f, 1.0f)(rng);
}

// Row contents; each gets several rows of two super-blocks.
const std::vector<std::pair<std::string, Fill>>& fills() {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    static const std::vector<std::pair<std::string, Fill>> table = {
        {"zeros", [](std::mt19937&, int64_t) { return 0.0f; }},
        {"negative zeros", [](std::mt19937&, int64_t) { return -0.0f; }},
        {"constant", [](std::mt19937&, int64_t) { return 0.37f; }},
        {"negative constant", [](std::mt19937&, int64_t) { return -2.5f; }},
        {"one large value",
         [](std::mt19937& g, int64_t i) { return i == 77 ? 1e4f : 0.01f * normal(g); }},
        {"one huge value", [](std::mt19937& g, int64_t i) { return i == 300 ? 3e38f : normal(g); }},
        {"denormals", [](std::mt19937& g, int64_t) { return std::ldexp(normal(g), -135); }},
        {"near the smallest normal",
         [](std::mt19937& g, int64_t) { return std::ldexp(normal(g), -120); }},
        {"infinities", [inf](std::mt19937& g,
                             int64_t i) { return i % 97 == 5 ? (i % 2 ? inf : -inf) : normal(g); }},
        {"NaN", [nan](std::mt19937& g, int64_t i) { return i % 131 == 7 ? nan : normal(g); }},
        {"NaN last in a block",
         [nan](std::mt19937& g, int64_t i) { return i % 256 == 255 ? nan : normal(g); }},
        {"halves", [](std::mt19937& g, int64_t) { return 0.5f * float(int(g() % 64) - 32); }},
        {"few levels", [](std::mt19937& g, int64_t) { return float(g() % 3); }},
        {"positive only", [](std::mt19937& g, int64_t) { return std::fabs(normal(g)) + 1.0f; }},
        {"skewed", [](std::mt19937& g, int64_t) { return std::exp(2.0f * normal(g)) - 1.0f; }},
    };
    return table;
}

TEST(FastEncode, SameBytesAsTheLibraryForEveryInputKind) {
    if (!fast_encode_covers(GGML_TYPE_Q8_0)) {
        GTEST_SKIP() << "no AVX2 on this CPU";
    }
    constexpr int64_t rows = 6;
    constexpr int64_t row_len = 512;
    for (ggml_type type : kTypes) {
        for (const auto& [what, fill] : fills()) {
            std::mt19937 rng(11);
            std::vector<float> x(size_t(rows * row_len));
            for (int64_t i = 0; i < rows * row_len; ++i) {
                x[size_t(i)] = fill(rng, i);
            }
            expect_same_bytes(type, x, rows, row_len, what);
        }
    }
}

// Gaussian rows at magnitudes from subnormal to near the float maximum, mixed
// within a row and alone, and every row length up to four super-blocks.
TEST(FastEncode, SameBytesAcrossScalesAndRowLengths) {
    if (!fast_encode_covers(GGML_TYPE_Q8_0)) {
        GTEST_SKIP() << "no AVX2 on this CPU";
    }
    std::mt19937 rng(5);
    for (ggml_type type : kTypes) {
        const int64_t block = ggml_blck_size(type);
        for (int exponent = -140; exponent <= 120; exponent += 4) {
            const int64_t rows = 3;
            const int64_t row_len = 2 * block;
            std::vector<float> x(size_t(rows * row_len));
            for (size_t i = 0; i < x.size(); ++i) {
                const int e = i < x.size() / 2 ? exponent : exponent + int(rng() % 9) - 4;
                x[i] = std::ldexp(normal(rng), e);
            }
            expect_same_bytes(type, x, rows, row_len, "scale 2^" + std::to_string(exponent));
        }
        for (int64_t row_len = block; row_len <= 4 * 256; row_len += block) {
            std::vector<float> x(size_t(3 * row_len));
            for (float& v : x) {
                v = normal(rng) * 0.02f;
            }
            expect_same_bytes(type, x, 3, row_len, "gaussian");
        }
    }
}

// Paths a search takes once in a thousand blocks or less (the last of q3_k's
// five level sweeps, say) show only on many blocks: 2048 super-blocks of
// gaussian rows.
TEST(FastEncode, SameBytesOnManyGaussianBlocks) {
    if (!fast_encode_covers(GGML_TYPE_Q8_0)) {
        GTEST_SKIP() << "no AVX2 on this CPU";
    }
    constexpr int64_t rows = 128;
    constexpr int64_t row_len = 16 * 256;
    std::mt19937 rng(1);
    std::vector<float> x(size_t(rows * row_len));
    for (float& v : x) {
        v = normal(rng);
    }
    for (ggml_type type : kTypes) {
        expect_same_bytes(type, x, rows, row_len, "gaussian");
    }
}

// One odd block among ordinary ones, at every position of a row of five
// super-blocks: blocks are taken in pairs, and an odd one must neither shift
// nor spoil its neighbours.
TEST(FastEncode, SameBytesWithOneOddBlockAnywhereInTheRow) {
    if (!fast_encode_covers(GGML_TYPE_Q8_0)) {
        GTEST_SKIP() << "no AVX2 on this CPU";
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Odd {
        const char* what;
        int64_t length;  // elements set, from the block's start
        float value;
    };
    const Odd odds[] = {
        {"NaN", 1, nan},
        {"infinity", 1, inf},
        {"zero super-block", 256, 0.0f},
        {"zero sub-block", 16, 0.0f},
        {"constant super-block", 256, 0.25f},
        {"tiny sub-block", 32, 1e-20f},
    };
    constexpr int64_t row_len = 5 * 256;
    std::mt19937 rng(9);
    for (ggml_type type : kTypes) {
        for (const Odd& odd : odds) {
            for (int64_t at = 0; at < row_len; at += 256) {
                std::vector<float> x(static_cast<size_t>(row_len));
                for (float& v : x) {
                    v = normal(rng);
                }
                std::fill_n(x.begin() + at + 7 * (odd.length == 1), odd.length, odd.value);
                expect_same_bytes(type, x, 1, row_len,
                                  std::string(odd.what) + " at " + std::to_string(at));
            }
        }
    }
}

// Through the whole pipeline (rows split over threads and chunks, one source
// re-encoded): each output type holds ggml's bytes for the source's floats.
TEST(FastEncode, FusedOutputHoldsTheLibrarysBytes) {
    TempDir dir;
    FixtureModel m = fixture_model();
    constexpr int64_t row_len = 1024;
    constexpr int64_t rows = 37;
    add_tensor(m, "w", GGML_TYPE_F32, {row_len, rows, 1, 1}, 3);
    write_fixture(m, dir.file("a.gguf"));
    const std::vector<float> x = fixture_values(3, row_len * rows);
    const std::pair<const char*, ggml_type> outputs[] = {
        {"q8_0", GGML_TYPE_Q8_0}, {"q2_k", GGML_TYPE_Q2_K}, {"q3_k", GGML_TYPE_Q3_K},
        {"q4_k", GGML_TYPE_Q4_K}, {"q5_k", GGML_TYPE_Q5_K}, {"q6_k", GGML_TYPE_Q6_K}};
    for (const auto& [word, type] : outputs) {
        const FuseResult r = fuse({dir.file("a.gguf")}, std::string("out ") + word,
                                  dir.file("o.gguf"), 2, nullptr, {});
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(read_tensor_bytes(dir.file("o.gguf"), "w"), library_bytes(type, x, rows, row_len))
            << word;
    }
}

TEST(FastEncode, CoversOnlyItsTypesAndWholeBlocks) {
    std::vector<float> x(1024, 1.0f);
    std::vector<uint8_t> out(4096, 0xAB);
    const bool vector_cpu = fast_encode_covers(GGML_TYPE_Q8_0);
    struct Case {
        ggml_type type;
        int64_t row_len;
        VectorUse use;
        bool covered;
    };
    const Case cases[] = {
        {GGML_TYPE_Q8_0, 64, VectorUse::if_available, vector_cpu},
        {GGML_TYPE_Q4_K, 256, VectorUse::if_available, vector_cpu},
        {GGML_TYPE_Q6_K, 512, VectorUse::if_available, vector_cpu},
        {GGML_TYPE_Q4_K, 256, VectorUse::never, false},
        {GGML_TYPE_Q8_0, 64, VectorUse::never, false},
        {GGML_TYPE_Q4_K, 288, VectorUse::if_available, false},
        {GGML_TYPE_Q8_0, 48, VectorUse::if_available, false},
        {GGML_TYPE_Q4_0, 64, VectorUse::if_available, false},
        {GGML_TYPE_F16, 64, VectorUse::if_available, false},
        {GGML_TYPE_Q2_K, 256, VectorUse::if_available, vector_cpu},
        {GGML_TYPE_Q3_K, 256, VectorUse::if_available, vector_cpu},
        {GGML_TYPE_Q3_K, 256, VectorUse::never, false},
    };
    for (const Case& c : cases) {
        std::fill(out.begin(), out.end(), 0xAB);
        EXPECT_EQ(c.covered, encode_rows_fast(c.type, x.data(), out.data(), 2, c.row_len, c.use))
            << ggml_type_name(c.type) << " row length " << c.row_len;
        EXPECT_EQ(c.covered, fast_encode_covers(c.type) &&
                                 c.row_len % ggml_blck_size(c.type) == 0 &&
                                 c.use == VectorUse::if_available);
        if (!c.covered) {
            EXPECT_EQ(out, std::vector<uint8_t>(4096, 0xAB)) << "wrote though it declined";
        }
    }
}

// The vector decoders against the library's to_float on random bytes, which
// reach every quant, every scale and min, and halves that are subnormal,
// infinite or NaN; and a dispatch that declines partial super-blocks, other
// types, and a caller that asks for the plain path.
TEST(FastDecode, SameFloatsAsTheLibraryOnAnyBytes) {
    std::mt19937 rng(11);
    for (const ggml_type type : {GGML_TYPE_Q6_K, GGML_TYPE_Q2_K, GGML_TYPE_Q3_K}) {
        const int64_t count = 64 * 256;
        std::vector<uint8_t> bytes(ggml_row_size(type, count));
        for (auto& b : bytes) {
            b = uint8_t(rng());
        }
        std::vector<float> fast(size_t(count), -1.0f);
        std::vector<float> library(static_cast<size_t>(count));
        if (!decode_rows_fast(type, bytes.data(), fast.data(), count)) {
            GTEST_SKIP() << "no AVX2 and F16C";
        }
        ggml_get_type_traits(type)->to_float(bytes.data(), library.data(), count);
        EXPECT_EQ(std::memcmp(fast.data(), library.data(), size_t(count) * 4), 0)
            << ggml_type_name(type);
        EXPECT_FALSE(decode_rows_fast(type, bytes.data(), fast.data(), count, VectorUse::never));
        EXPECT_FALSE(decode_rows_fast(type, bytes.data(), fast.data(), 100));
    }
    std::vector<uint8_t> q4(ggml_row_size(GGML_TYPE_Q4_K, 256));
    std::vector<float> out(256);
    EXPECT_FALSE(decode_rows_fast(GGML_TYPE_Q4_K, q4.data(), out.data(), 256));
}

}  // namespace
}  // namespace tevrin::testing
