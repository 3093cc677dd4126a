// tevrin-sample: writes a GGUF model of one of a few common shapes (llama by
// default, see sample_shapes.h) with deterministic pseudo-random weights, for
// tests, benchmarks and trying the tool without a real model.
//
// The header is built by ggml's own writer; the tensor data is then generated and
// streamed chunk by chunk, so a model of many gigabytes needs only a few megabytes
// of memory.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuse/output_stream.h"
#include "fuse/parallel_rows.h"
#include "model/gguf_handle.h"
#include "tools/sample_options.h"
#include "tools/sample_shapes.h"

namespace tevrin {

namespace {

// Filler piece number k: "▁" and k written in bijective base 26 (a..z, aa, ab, ...),
// so every piece is distinct.
std::string filler_piece(int64_t k) {
    std::string letters;
    for (++k; k > 0; k = (k - 1) / 26) {
        letters.insert(letters.begin(), char('a' + (k - 1) % 26));
    }
    return "\xe2\x96\x81" + letters;
}

// A sentencepiece-style vocabulary that llama loaders accept; token types are
// 1 normal, 2 unknown, 3 control, 6 byte.
void set_tokenizer(gguf_context* g, const SampleOptions& o) {
    std::vector<std::string> tokens = {"<unk>", "<s>", "</s>"};
    std::vector<float> scores(size_t(o.vocab), 0.0f);
    std::vector<int32_t> types = {2, 3, 3};
    for (int byte = 0; byte < 256; ++byte) {
        char piece[8];
        std::snprintf(piece, sizeof piece, "<0x%02X>", byte);
        tokens.push_back(piece);
        types.push_back(6);
    }
    for (int64_t id = kFirstFiller; id < o.vocab; ++id) {
        tokens.push_back(filler_piece(id - kFirstFiller));
        scores[size_t(id)] = -float(id - kFirstFiller);
        types.push_back(1);
    }
    std::vector<const char*> texts;
    for (const auto& t : tokens) {
        texts.push_back(t.c_str());
    }
    gguf_set_val_str(g, "tokenizer.ggml.model", "llama");
    gguf_set_arr_str(g, "tokenizer.ggml.tokens", texts.data(), texts.size());
    gguf_set_arr_data(g, "tokenizer.ggml.scores", GGUF_TYPE_FLOAT32, scores.data(), scores.size());
    gguf_set_arr_data(g, "tokenizer.ggml.token_type", GGUF_TYPE_INT32, types.data(), types.size());
    gguf_set_val_u32(g, "tokenizer.ggml.bos_token_id", 1);
    gguf_set_val_u32(g, "tokenizer.ggml.eos_token_id", 2);
    gguf_set_val_u32(g, "tokenizer.ggml.unknown_token_id", 0);
}

void set_metadata(gguf_context* g, const SampleOptions& o) {
    const std::string& a = o.arch;
    const uint32_t heads = head_count(shape_params(o));
    gguf_set_val_str(g, "general.architecture", a.c_str());
    gguf_set_val_str(g, "general.name", o.name.c_str());
    gguf_set_val_u32(g, (a + ".block_count").c_str(), uint32_t(o.layers));
    gguf_set_val_u32(g, (a + ".context_length").c_str(), 2048);
    gguf_set_val_u32(g, (a + ".embedding_length").c_str(), uint32_t(o.width));
    gguf_set_val_u32(g, (a + ".feed_forward_length").c_str(), uint32_t(o.ffn));
    gguf_set_val_u32(g, (a + ".attention.head_count").c_str(), heads);
    gguf_set_val_u32(g, (a + ".attention.head_count_kv").c_str(), heads);
    if (o.has_template) {
        gguf_set_val_str(g, "tokenizer.chat_template", o.chat_template.c_str());
    }
    if (o.tokenizer) {
        gguf_set_val_u32(g, (a + ".vocab_size").c_str(), uint32_t(o.vocab));
        gguf_set_val_u32(g, (a + ".rope.dimension_count").c_str(), uint32_t(o.width) / heads);
        gguf_set_val_f32(g, (a + ".attention.layer_norm_rms_epsilon").c_str(), 1e-5f);
        set_tokenizer(g, o);
    }
    set_shape_metadata(g, shape_params(o));
}

// The SplitMix64 finaliser without its increment (the stream adds it itself).
uint64_t sample_mix(uint64_t x) {
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// SplitMix64 stream per tensor. Each step gives two values from the sum of two
// uniforms: a triangular spread around 0 with a standard deviation of 0.02.
constexpr uint64_t kWeightStep = 0x9e3779b97f4a7c15ull;

struct WeightStream {
    uint64_t state;

    void fill(float* out, int64_t n) {
        constexpr float kUnit = 1.0f / 16777216.0f;  // 2^-24
        constexpr float kScale = 0.04898979f;        // 0.02 * sqrt(6)
        for (int64_t i = 0; i < n; ++i) {
            state += kWeightStep;
            const uint64_t z = sample_mix(state);
            const float u1 = float(z >> 40) * kUnit;
            const float u2 = float(z & 0xffffff) * kUnit;
            out[i] = (u1 + u2 - 1.0f) * kScale;
        }
    }
};

// Rows of floats generated and encoded at a time: about 4 MiB, at least one row.
constexpr int64_t kChunkElements = int64_t(1) << 20;

// Generates and encodes rows [first, first + rows) of a tensor whose stream
// starts at `start`: each value depends only on its place in the tensor, so any
// split of the rows gives the same bytes.
void make_rows(const SampleTensor& t, uint64_t start, int64_t first, int64_t rows, float* values,
               uint8_t* encoded) {
    WeightStream stream{start + uint64_t(first * t.ne0) * kWeightStep};
    const int64_t n = rows * t.ne0;
    stream.fill(values, n);
    if (t.norm) {
        for (int64_t i = 0; i < n; ++i) {
            values[i] += 1.0f;
        }
    }
    if (t.type != GGML_TYPE_F32) {
        ggml_quantize_chunk(t.type, values, encoded, 0, rows, t.ne0, nullptr);
    }
}

void write_tensor_data(OutputStream& out, const SampleTensor& t, uint64_t seed, size_t index,
                       int threads) {
    const uint64_t start = sample_mix(seed ^ sample_mix(index + 1));
    const int64_t rows_per_chunk = std::max<int64_t>(1, kChunkElements / t.ne0);
    const int64_t total_rows = t.ne1 * t.ne2;
    const size_t row_size = ggml_row_size(t.type, t.ne0);
    std::vector<float> values(size_t(rows_per_chunk * t.ne0));
    std::vector<uint8_t> encoded(row_size * size_t(rows_per_chunk));
    for (int64_t row = 0; row < total_rows; row += rows_per_chunk) {
        const int64_t rows = std::min(rows_per_chunk, total_rows - row);
        parallel_rows(int32_t(std::min<int64_t>(threads, rows)), rows, [&](int64_t lo, int64_t hi) {
            make_rows(t, start, row + lo, hi - lo, values.data() + lo * t.ne0,
                      encoded.data() + size_t(lo) * row_size);
        });
        if (t.type == GGML_TYPE_F32) {
            write_bytes(out, values.data(), size_t(rows * t.ne0) * sizeof(float));
        } else {
            write_bytes(out, encoded.data(), row_size * size_t(rows));
        }
        check_output(out);
    }
}

void write_model(const SampleOptions& o) {
    silence_ggml_log();
    const std::vector<SampleTensor> tensors = shape_tensors(shape_params(o));
    ggml_init_params params = {ggml_tensor_overhead() * (tensors.size() + 1), nullptr, true};
    GgmlHandle ctx(ggml_init(params));
    GgufHandle gguf(gguf_init_empty());
    set_metadata(gguf.get(), o);
    for (const auto& t : tensors) {
        const int64_t ne[3] = {t.ne0, t.ne1, t.ne2};
        const int dims = t.norm || t.vector ? 1 : (t.ne2 > 1 ? 3 : 2);
        ggml_tensor* tensor = ggml_new_tensor(ctx.get(), t.type, dims, ne);
        ggml_set_name(tensor, t.name.c_str());
        gguf_add_tensor(gguf.get(), tensor);
    }
    std::vector<uint8_t> meta(gguf_get_meta_size(gguf.get()));
    gguf_get_meta_data(gguf.get(), meta.data());

    write_output_file(o.out, [&](OutputStream& out) {
        write_bytes(out, meta.data(), meta.size());
        const uint64_t alignment = gguf_get_alignment(gguf.get());
        const int threads = resolve_threads(o.threads);
        for (size_t i = 0; i < tensors.size(); ++i) {
            const uint64_t before = out.written;
            write_tensor_data(out, tensors[i], o.seed, i, threads);
            write_zeros(out, (alignment - (out.written - before) % alignment) % alignment);
        }
    });
}

}  // namespace

}  // namespace tevrin

int main(int argc, char** argv) {
    try {
        tevrin::SampleOptions options;
        if (!tevrin::parse_sample_options(argc, argv, options)) {
            std::fputs(tevrin::sample_usage(), stdout);
            return 0;
        }
        tevrin::write_model(options);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tevrin-sample: %s\n", e.what());
        return 1;
    }
}
