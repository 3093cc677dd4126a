// Shared vocabulary rows: donors whose vocabulary grew or shrank by a few tokens
// against the base's, with tokenizers that agree or disagree, and the rows that
// reach the output against a reference worked out row by row here.
#include <gtest/gtest.h>

#include <algorithm>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/fuse.h"
#include "fuse/run_preview.h"
#include "recipe/parse_recipe.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

constexpr int64_t kWidth = 8;
const char* const kVocabTensors[] = {"token_embd.weight", "output.weight"};

uint64_t tensor_value_seed(uint64_t model_seed, size_t tensor) {
    return model_seed * 10 + tensor;
}

// One layer, a tokenizer of `vocab` tokens "t0", "t1", ... (entry `odd` spelled
// otherwise), and token_embd / output of `rows` rows (the vocabulary when -1).
FixtureModel vocab_model(int64_t vocab, uint64_t seed, int64_t odd = -1, int64_t rows = -1) {
    FixtureModel m = fixture_model();
    gguf_set_val_str(m.meta.get(), "general.architecture", "llama");
    gguf_set_val_u32(m.meta.get(), "llama.block_count", 1);
    std::vector<std::string> tokens;
    for (int64_t i = 0; i < vocab; ++i) {
        tokens.push_back(i == odd ? "other" : "t" + std::to_string(i));
    }
    std::vector<const char*> texts;
    for (const auto& t : tokens) {
        texts.push_back(t.c_str());
    }
    gguf_set_arr_str(m.meta.get(), "tokenizer.ggml.tokens", texts.data(), texts.size());
    rows = rows < 0 ? vocab : rows;
    for (size_t t = 0; t < 2; ++t) {
        add_tensor(m, kVocabTensors[t], GGML_TYPE_F32, {kWidth, rows, 1, 1},
                   tensor_value_seed(seed, t));
    }
    add_tensor(m, "blk.0.attn_norm.weight", GGML_TYPE_F32, {kWidth, 1, 1, 1}, seed * 10 + 5);
    return m;
}

// The plan preview's source bytes for a vocabulary tensor: each row read once
// from every source that gives it.
uint64_t previewed_read(const std::vector<std::string>& paths, const std::string& recipe,
                        const char* tensor) {
    const RunPreview p = preview_run(paths, recipe);
    for (size_t i = 0; i < p.run.plans.size(); ++i) {
        if (p.run.plans[i].name == tensor) {
            return p.tensors[i].bytes_read;
        }
    }
    return 0;
}

struct Source {
    int64_t rows;    // rows of its vocabulary tensors
    int64_t shared;  // rows it is expected to give; 0: drops out
    uint64_t seed;
};

// The expected tensor: each row blended by `spec` (weights taken by position)
// from the sources that reach that row, with the row's own number as the kernel
// sees it in the run.
std::vector<float> expected_rows(const std::vector<Source>& sources, const MethodSpec& spec,
                                 size_t tensor, int64_t out_rows) {
    std::vector<std::vector<float>> values;
    for (const Source& s : sources) {
        values.push_back(fixture_values(tensor_value_seed(s.seed, tensor), kWidth * s.rows));
    }
    const uint64_t seed = tensor_seed(42, kVocabTensors[tensor]);
    std::vector<float> out(size_t(kWidth * out_rows));
    for (int64_t r = 0; r < out_rows; ++r) {
        std::vector<const float*> rows;
        MethodSpec local = spec;
        local.weights.clear();
        for (size_t s = 0; s < sources.size(); ++s) {
            if (s == 0 || r < sources[s].shared) {
                rows.push_back(values[s].data() + r * kWidth);
                if (!spec.weights.empty()) {
                    local.weights.push_back(spec.weights[s]);
                }
            }
        }
        if (rows.size() == 1) {
            std::copy_n(rows[0], kWidth, out.data() + r * kWidth);
        } else {
            blend_rows(local, seed, r, rows, out.data() + r * kWidth, 1, kWidth);
        }
    }
    return out;
}

struct Case {
    const char* what;
    int64_t donor_vocab;
    int64_t odd;          // token spelled otherwise in the donor, -1 none
    int64_t donor_rows;   // -1: the vocabulary
    int64_t shared;       // expected shared rows, 0: the donor drops out
    const char* message;  // expected run notes
};

TEST(VocabAlign, DonorGivesTheRowsBothTokenizersShare) {
    const Case cases[] = {
        {"donor grew", 12, -1, -1, 10, "source 1 vocabulary aligned on 10 shared rows of 10"},
        {"base grew", 7, -1, -1, 7, "source 1 vocabulary aligned on 7 shared rows of 10"},
        {"tokens disagree", 12, 4, -1, 0, "ok"},
        {"disagree past the shared rows", 12, 11, -1, 10,
         "source 1 vocabulary aligned on 10 shared rows of 10"},
        {"same size, other strings: as ever", 10, 4, -1, 10, "ok"},
        {"rows padded past the vocabulary", 12, -1, 13, 0, "ok"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        write_fixture(vocab_model(10, 1), dir.file("a.gguf"));
        write_fixture(vocab_model(c.donor_vocab, 2, c.odd, c.donor_rows), dir.file("b.gguf"));
        const FuseResult r = fuse({dir.file("a.gguf"), dir.file("b.gguf")}, "out f32",
                                  dir.file("o.gguf"), 2, nullptr, {});
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(r.message, c.message);
        EXPECT_EQ(r.fallback, c.shared == 0 ? 2 : 0);
        const int64_t donor_rows = c.donor_rows < 0 ? c.donor_vocab : c.donor_rows;
        const std::vector<Source> sources = {{10, 10, 1}, {donor_rows, c.shared, 2}};
        for (size_t t = 0; t < 2; ++t) {
            EXPECT_EQ(read_tensor_floats(dir.file("o.gguf"), kVocabTensors[t]),
                      expected_rows(sources, parse_recipe("", 2).default_spec, t, 10))
                << kVocabTensors[t];
        }
    }
}

// Base 10 tokens, donor A 12 (gives all 10 rows), donor B 7: rows 0-6 blend
// three sources, rows 7-9 two, and weights and random draws follow each row.
TEST(VocabAlign, RowSpansKeepWeightsAndRowNumbers) {
    TempDir dir;
    write_fixture(vocab_model(10, 1), dir.file("a.gguf"));
    write_fixture(vocab_model(12, 2), dir.file("b.gguf"));
    write_fixture(vocab_model(7, 3), dir.file("c.gguf"));
    const std::vector<Source> sources = {{10, 10, 1}, {12, 10, 2}, {7, 7, 3}};
    for (const char* method : {"linear 1,2,3", "dare 0.5 1,1,1", "slerp 0.3", "median"}) {
        SCOPED_TRACE(method);
        const std::string recipe = std::string("out f32\ndefault ") + method;
        const FuseResult r = fuse({dir.file("a.gguf"), dir.file("b.gguf"), dir.file("c.gguf")},
                                  recipe, dir.file("o.gguf"), 2, nullptr, {});
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(r.message,
                  "source 1 vocabulary aligned on 10 shared rows of 10; "
                  "source 2 vocabulary aligned on 7 shared rows of 10");
        const MethodSpec spec = parse_recipe(recipe, 3).default_spec;
        EXPECT_EQ(previewed_read({dir.file("a.gguf"), dir.file("b.gguf"), dir.file("c.gguf")},
                                 recipe, kVocabTensors[0]),
                  (10 + 10 + 7) * kWidth * sizeof(float));
        for (size_t t = 0; t < 2; ++t) {
            EXPECT_EQ(read_tensor_floats(dir.file("o.gguf"), kVocabTensors[t]),
                      expected_rows(sources, spec, t, 10))
                << kVocabTensors[t];
        }
    }
}

// A pick of a donor copies its shared rows, then the base's, byte for byte,
// whether the donor has fewer rows or more; the shared tensors of a stacked run
// are aligned the same way.
TEST(VocabAlign, PickAndStackTakeSharedRowsFromTheDonor) {
    for (const int64_t donor_vocab : {7, 12}) {
        TempDir dir;
        write_fixture(vocab_model(10, 1), dir.file("a.gguf"));
        write_fixture(vocab_model(donor_vocab, 2), dir.file("b.gguf"));
        const int64_t shared = std::min<int64_t>(donor_vocab, 10);
        for (const char* recipe :
             {"out f32\ndefault pick 1", "out f32\nstack 1:0 0:0\ndefault pick 1"}) {
            SCOPED_TRACE(std::string(recipe) + " donor " + std::to_string(donor_vocab));
            const FuseResult r = fuse({dir.file("a.gguf"), dir.file("b.gguf")}, recipe,
                                      dir.file("o.gguf"), 1, nullptr, {});
            ASSERT_TRUE(r.ok) << r.message;
            EXPECT_EQ(r.message, "source 1 vocabulary aligned on " + std::to_string(shared) +
                                     " shared rows of 10");
            EXPECT_EQ(
                previewed_read({dir.file("a.gguf"), dir.file("b.gguf")}, recipe, kVocabTensors[0]),
                10 * kWidth * sizeof(float));
            for (size_t t = 0; t < 2; ++t) {
                std::vector<float> want = fixture_values(tensor_value_seed(1, t), kWidth * 10);
                const std::vector<float> donor =
                    fixture_values(tensor_value_seed(2, t), kWidth * donor_vocab);
                std::copy_n(donor.begin(), kWidth * shared, want.begin());
                EXPECT_EQ(read_tensor_floats(dir.file("o.gguf"), kVocabTensors[t]), want);
            }
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
