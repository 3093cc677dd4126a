// The row pipeline seen from the output file: copies, the sources and weights each
// method gets when a donor lacks a tensor, chunking, and the rows a donor gives
// when its vocabulary differs from the base's.
#include <gtest/gtest.h>

#include <cstring>

#include "fuse/f16_rows.h"
#include "fuse/run_preview.h"
#include "recipe/parse_recipe.h"
#include "tests/fuse/fuse_fixtures.h"

namespace tevrin::testing {
namespace {

TEST(WriteTensor, SingleSourceInTheOutputTypeIsCopiedBitExact) {
    FuseDir d;
    FixtureModel m = fixture_model();
    add_tensor(m, "q", GGML_TYPE_Q4_K, {256, 3, 1, 1}, 5);
    const std::string a = d.write("a.gguf", m);
    ASSERT_TRUE(d.run({a}, "out keep\ndefault ties 0.3").ok);
    EXPECT_EQ(read_tensor_bytes(d.out, "q"), read_tensor_bytes(a, "q"));
}

// Source 1 lacks output.weight: there the weights of sources 0 and 2 stay theirs,
// a short list is filled (0 for linear, 1 for the task-vector methods), and the
// tensors outside a stack blend like any other. On 8 threads, every method's rows
// still match one single-threaded kernel call.
TEST(WriteTensor, WeightsFollowTheirSourcesWhenOneDropsOut) {
    FuseDir d;
    std::vector<std::string> paths;
    for (uint64_t s = 0; s < 3; ++s) {
        FixtureModel m = llama_fixture(2, 64, GGML_TYPE_F32, 30 + s);
        if (s == 1) {
            drop_tensor(m, "output.weight");
        }
        paths.push_back(d.write("s" + std::to_string(s) + ".gguf", m));
    }
    const struct {
        std::string method;
        std::vector<float> all, two;  // weights of every source, and of sources 0 and 2
    } cases[] = {
        {"linear 0.5,0.25,0.25", {0.5f, 0.25f, 0.25f}, {0.5f, 0.25f}},
        {"linear 1,2", {1, 2, 0}, {1, 0}},
        {"slerp 0.3", {}, {}},
        {"ties 0.5 1,2", {1, 2, 1}, {1, 1}},
        {"model_stock", {}, {}},
        {"sce 0.3", {}, {}},
        {"karcher 12 1,2,1", {1, 2, 1}, {1, 1}},
        {"multislerp 1 0,1,3", {0, 1, 3}, {0, 3}},
        {"nuslerp 0,1,3", {0, 1, 3}, {0, 3}},
        {"breadcrumbs 0.8", {}, {}},
        {"nearswap 0.01", {}, {}},
    };
    for (const auto& c : cases) {
        for (const std::string stack : {"", "stack 0:0-1 2:1\n"}) {
            SCOPED_TRACE(stack + c.method);
            const FuseResult r = d.run(paths, "out f32\n" + stack + "default " + c.method, 8);
            ASSERT_TRUE(r.ok) << r.message;
            EXPECT_EQ(r.layers, stack.empty() ? 2 : 3);
            EXPECT_EQ(r.fallback, 1);
            MethodSpec spec = parse_recipe("default " + c.method, 3).default_spec;
            spec.weights = c.all;
            EXPECT_EQ(read_tensor_floats(d.out, "token_embd.weight"),
                      blended_files(spec, paths, "token_embd.weight", 64));
            spec.weights = c.two;
            EXPECT_EQ(read_tensor_floats(d.out, "output.weight"),
                      blended_files(spec, {paths[0], paths[2]}, "output.weight", 64));
        }
    }
    // A pick takes its source's tensor whole, or the base's where its source lacks it.
    for (const auto& [pick, output_from] : {std::pair{1, 0}, {2, 2}}) {
        ASSERT_TRUE(d.run(paths, "out f32\ndefault pick " + std::to_string(pick)).ok);
        EXPECT_EQ(read_tensor_floats(d.out, "token_embd.weight"),
                  read_tensor_floats(paths[size_t(pick)], "token_embd.weight"));
        EXPECT_EQ(read_tensor_floats(d.out, "output.weight"),
                  read_tensor_floats(paths[size_t(output_from)], "output.weight"));
    }
}

TEST(WriteTensor, ChunkedTensorsMatchOneWholeBlend) {
    // 3000-element rows give chunks of 1398 rows: boundaries that cut chaos blocks.
    FuseDir d;
    std::vector<std::string> paths;
    for (int s = 0; s < 3; ++s) {
        FixtureModel m = fixture_model();
        add_tensor(m, "w", GGML_TYPE_F32, {3000, 1500, 1, 1}, 10 + s);
        paths.push_back(d.write("s" + std::to_string(s) + ".gguf", m));
    }
    for (const std::string method : {"chaos 0.6", "dare 0.4", "della 0.3"}) {
        ASSERT_TRUE(d.run(paths, "out f32\ndefault " + method, 3).ok) << method;
        const MethodSpec spec = parse_recipe("default " + method, 3).default_spec;
        EXPECT_TRUE(read_tensor_floats(d.out, "w") == blended_files(spec, paths, "w", 3000))
            << method;
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

// Shared vocabulary rows: donors whose vocabulary grew or shrank by a few tokens
// against the base's, with tokenizers that agree or disagree, the rows that reach
// the output against a reference worked out row by row, and the source bytes the
// plan preview counts for them.
constexpr int64_t kWidth = 8;
const char* const kVocabTensors[] = {"token_embd.weight", "output.weight"};

struct Donor {
    int64_t vocab;
    int64_t shared;     // rows it is expected to give; 0: it drops out
    int64_t odd = -1;   // token spelled otherwise, -1 none
    int64_t rows = -1;  // rows of its vocabulary tensors; -1: the vocabulary
};

// The base's 10 rows of `name`, each blended by `spec` (weights taken by position)
// from the sources that reach it, with the row's own number as the kernel sees it.
std::vector<float> expected_rows(const std::vector<Donor>& sources,
                                 const std::vector<std::string>& paths, const MethodSpec& spec,
                                 const std::string& name) {
    std::vector<std::vector<float>> values;
    for (const auto& path : paths) {
        values.push_back(read_tensor_floats(path, name));
    }
    std::vector<float> out;
    for (int64_t r = 0; r < 10; ++r) {
        std::vector<const float*> rows;
        MethodSpec local = spec;
        local.weights.clear();
        for (size_t s = 0; s < sources.size(); ++s) {
            if (r < sources[s].shared) {
                rows.push_back(values[s].data() + r * kWidth);
                if (!spec.weights.empty()) {
                    local.weights.push_back(spec.weights[s]);
                }
            }
        }
        const auto row = rows.size() == 1 ? std::vector<float>(rows[0], rows[0] + kWidth)
                                          : blended(local, name, rows, kWidth, 1, r);
        out.insert(out.end(), row.begin(), row.end());
    }
    return out;
}

TEST(VocabAlign, DonorsGiveTheRowsBothTokenizersShare) {
    const std::string note1 = "source 1 vocabulary aligned on ", of10 = " shared rows of 10";
    const std::string both = note1 + "10" + of10 + "; source 2 vocabulary aligned on 7" + of10;
    const struct {
        std::vector<Donor> donors;
        std::string method, message;
    } cases[] = {
        {{{12, 10}}, "linear", note1 + "10" + of10},      // the donor grew
        {{{7, 7}}, "linear", note1 + "7" + of10},         // the base grew
        {{{12, 0, 4}}, "linear", "ok"},                   // the tokens disagree
        {{{12, 0, 9}}, "linear", "ok"},                   // ... at the last shared row
        {{{12, 10, 11}}, "linear", note1 + "10" + of10},  // ... past the shared rows
        {{{10, 10, 4}}, "linear", "ok"},      // same size, other strings: blended as ever
        {{{12, 0, -1, 13}}, "linear", "ok"},  // rows padded past the vocabulary
        // Rows 0-6 blend three sources, rows 7-9 two; weights and draws follow each row.
        {{{12, 10}, {7, 7}}, "linear 1,2,3", both},
        {{{12, 10}, {7, 7}}, "dare 0.5 1,1,1", both},
        {{{12, 10}, {7, 7}}, "slerp 0.3", both},
        {{{12, 10}, {7, 7}}, "median", both},
        // A pick copies the donor's shared rows, then the base's, whether the donor
        // has fewer rows or more; the shared tensors of a stacked run likewise.
        {{{7, 7}}, "pick 1", note1 + "7" + of10},
        {{{12, 10}}, "pick 1", note1 + "10" + of10},
        {{{7, 7}}, "pick 1\nstack 1:0 0:0", note1 + "7" + of10},
        {{{12, 10}}, "pick 1\nstack 1:0 0:0", note1 + "10" + of10},
    };
    for (const auto& c : cases) {
        std::vector<Donor> sources = {{10, 10}};
        sources.insert(sources.end(), c.donors.begin(), c.donors.end());
        SCOPED_TRACE(c.method + " with donor " + std::to_string(c.donors[0].vocab));
        FuseDir d;
        std::vector<std::string> paths;
        bool drops = false;
        int64_t given = 0;  // rows read: each once from every source that gives it
        for (size_t s = 0; s < sources.size(); ++s) {
            FixtureModel m = llama_fixture(1, kWidth, GGML_TYPE_F32, s + 1);
            set_words(m, kTokens, sources[s].vocab, "t", sources[s].odd);
            for (const char* name : kVocabTensors) {
                tensor_named(m, name).ne[1] =
                    sources[s].rows < 0 ? sources[s].vocab : sources[s].rows;
            }
            paths.push_back(d.write("s" + std::to_string(s) + ".gguf", m));
            drops = drops || sources[s].shared == 0;
            given += sources[s].shared;
        }
        const std::string recipe = "out f32\ndefault " + c.method;
        const FuseResult r = d.run(paths, recipe);
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(r.message, c.message);
        EXPECT_EQ(r.fallback, drops ? 2 : 0);
        const RunPreview p = preview_run(paths, recipe);  // a pick reads only what it takes
        ASSERT_EQ(p.run.plans[0].name, kVocabTensors[0]);
        EXPECT_EQ(p.tensors[0].bytes_read,
                  uint64_t(c.method.rfind("pick", 0) == 0 ? 10 : given) * kWidth * sizeof(float));
        const MethodSpec spec = parse_recipe(recipe, int32_t(paths.size())).default_spec;
        for (const char* name : kVocabTensors) {
            EXPECT_EQ(read_tensor_floats(d.out, name), expected_rows(sources, paths, spec, name))
                << name;
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
