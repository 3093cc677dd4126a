// The sources the fusion tests run on and the reference their blended tensors are
// checked against: a folder of fixtures with one output path, the shared corpus of
// small llama-shaped sources, and the kernel called as a run calls it.
#pragma once

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {

inline const char* const kTokens = "tokenizer.ggml.tokens";

// A string array under `key`: "<spelling>0", "<spelling>1", ...; entry `odd` is "other".
inline void set_words(FixtureModel& m, const std::string& key, int64_t count,
                      const std::string& spelling, int64_t odd = -1) {
    std::vector<std::string> words;
    std::vector<const char*> texts;
    for (int64_t i = 0; i < count; ++i) {
        words.push_back(i == odd ? "other" : spelling + std::to_string(i));
    }
    for (const auto& w : words) {
        texts.push_back(w.c_str());
    }
    gguf_set_arr_str(m.meta.get(), key.c_str(), texts.data(), texts.size());
}

inline FixtureTensor& tensor_named(FixtureModel& m, const std::string& name) {
    return *std::ranges::find(m.tensors, name, &FixtureTensor::name);
}

inline void drop_tensor(FixtureModel& m, const std::string& name) {
    std::erase_if(m.tensors, [&](const FixtureTensor& t) { return t.name == name; });
}

// A temporary folder of sources; run() fuses them into `out`.
struct FuseDir {
    TempDir dir;
    std::string out = dir.file("out.gguf");

    std::string write(const std::string& name, const FixtureModel& m) const {
        write_fixture(m, dir.file(name));
        return dir.file(name);
    }
    std::string llama(const std::string& name, int32_t layers, uint64_t seed,
                      ggml_type type = GGML_TYPE_F16, int64_t width = 64,
                      const std::string& arch = "llama") const {
        return write(name, llama_fixture(layers, width, type, seed, arch));
    }
    FuseResult run(const std::vector<std::string>& sources, const std::string& recipe,
                   int threads = 2, const FuseOptions& options = {},
                   const ProgressFn& progress = {},
                   const std::atomic<bool>* cancel = nullptr) const {
        return fuse(sources, recipe, out, threads, cancel, progress, options);
    }
};

// Width 64, 2 layers unless said. a: the base, F16, 16 tokens. b: Q8_0. c: 3
// layers, F32. d: lacks blk.1.attn_q.weight, holds blk.0.ffn_up.weight as 64 x 64.
// e: 20 other tokens, so its token_embd and output rows share nothing with a's.
struct Corpus : FuseDir {
    std::string a, b, c, d, e;
    Corpus() {
        FixtureModel base = llama_fixture(2, 64, GGML_TYPE_F16, 1);
        set_words(base, kTokens, 16, "t");
        a = write("a.gguf", base);
        b = llama("b.gguf", 2, 2, GGML_TYPE_Q8_0);
        c = llama("c.gguf", 3, 3, GGML_TYPE_F32);
        FixtureModel gap = llama_fixture(2, 64, GGML_TYPE_F16, 4);
        drop_tensor(gap, "blk.1.attn_q.weight");
        tensor_named(gap, "blk.0.ffn_up.weight").ne = {64, 64, 1, 1};
        d = write("d.gguf", gap);
        FixtureModel vocab = llama_fixture(2, 64, GGML_TYPE_F16, 5);
        set_words(vocab, kTokens, 20, "u");
        tensor_named(vocab, "token_embd.weight").ne = {64, 20, 1, 1};
        tensor_named(vocab, "output.weight").ne = {64, 20, 1, 1};
        e = write("e.gguf", vocab);
    }
};

// `n_rows` rows from `first_row` on blended by `spec` from `rows` (one pointer per
// active source), with the draws of tensor `name` under the default seed.
inline std::vector<float> blended(const MethodSpec& spec, const std::string& name,
                                  const std::vector<const float*>& rows, int64_t row_len,
                                  int64_t n_rows, int64_t first_row = 0, uint64_t seed = 42) {
    std::vector<float> out(size_t(row_len * n_rows));
    blend_rows(spec, tensor_seed(seed, name), first_row, rows, out.data(), n_rows, row_len);
    return out;
}

// Tensor `name` (or `names[i]` of `paths[i]`) decoded from each file and blended
// whole by `spec`, with the draws of `name`.
inline std::vector<float> blended_files(const MethodSpec& spec,
                                        const std::vector<std::string>& paths,
                                        const std::string& name, int64_t row_len,
                                        const std::vector<std::string>& names = {},
                                        uint64_t seed = 42) {
    std::vector<std::vector<float>> values;
    for (size_t i = 0; i < paths.size(); ++i) {
        values.push_back(read_tensor_floats(paths[i], names.empty() ? name : names[i]));
    }
    std::vector<const float*> rows;
    for (const auto& v : values) {
        rows.push_back(v.data());
    }
    return blended(spec, name, rows, row_len, int64_t(values[0].size()) / row_len, 0, seed);
}

}  // namespace tevrin::testing
