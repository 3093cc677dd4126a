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

#include "model/gguf_handle.h"
#include "tools/sample_shapes.h"

namespace tevrin {

namespace {

const char* const kUsage =
    "usage: tevrin-sample [options] -o <path>\n"
    "Writes a GGUF model with deterministic pseudo-random weights.\n"
    "\n"
    "  -o <path>        output file (required)\n"
    "  --layers N       number of blocks (default 4, 0 allowed)\n"
    "  --width N        embedding length (default 256)\n"
    "  --ffn N          feed-forward length (default 3 x width)\n"
    "  --vocab N        vocabulary size, rows of token_embd and output (default 512)\n"
    "  --type T         type of the matrices: f32, f16, bf16, q8_0, q4_0, q5_0,\n"
    "                   q4_k, q5_k, q6_k (default f16); norms are always f32\n"
    "  --seed N         seed of the weights (default 1); same options, same bytes\n"
    "  --shape S        llama (default), tied (no output.weight), qwen2 (attention\n"
    "                   biases), moe (4 experts: ffn_gate_inp router, 3-D\n"
    "                   ffn_*_exps), deci (per-layer head, key/value head and\n"
    "                   feed-forward arrays; odd layers have half the key/value\n"
    "                   heads), phi3 (fused attn_qkv and ffn_up)\n"
    "  --arch S         general.architecture and key prefix (default: the shape's,\n"
    "                   llama for llama, tied and moe)\n"
    "  --name S         general.name (default \"tevrin sample\")\n"
    "  --template S     tokenizer.chat_template (default: no template key)\n"
    "  --tokenizer      add a llama-style tokenizer (<unk>, <s>, </s>, 256 byte\n"
    "                   tokens, then filler pieces up to the vocabulary size, at\n"
    "                   least 259) and the keys an inference loader needs\n"
    "  -h, --help       this text\n"
    "\n"
    "Width and feed-forward length must be multiples of the type's block size\n"
    "(32 for q8_0/q4_0/q5_0, 256 for the k-quants). The head count is width / 64\n"
    "(at least 1), with as many key/value heads.\n";

struct Options {
    int64_t layers = 4;
    int64_t width = 256;
    int64_t ffn = 0;  // 0: 3 x width
    int64_t vocab = 512;
    ggml_type type = GGML_TYPE_F16;
    uint64_t seed = 1;
    std::string arch;  // empty: the shape's
    SampleShape shape = SampleShape::llama;
    std::string name = "tevrin sample";
    std::string chat_template;
    bool has_template = false;
    bool tokenizer = false;
    std::string out;
};

struct TypeWord {
    const char* word;
    ggml_type type;
};

const TypeWord kTypes[] = {
    {"f32", GGML_TYPE_F32},   {"f16", GGML_TYPE_F16},   {"bf16", GGML_TYPE_BF16},
    {"q8_0", GGML_TYPE_Q8_0}, {"q4_0", GGML_TYPE_Q4_0}, {"q5_0", GGML_TYPE_Q5_0},
    {"q4_k", GGML_TYPE_Q4_K}, {"q5_k", GGML_TYPE_Q5_K}, {"q6_k", GGML_TYPE_Q6_K},
};

// Tokenizer layout: <unk>, <s>, </s>, the 256 byte tokens, then filler pieces.
constexpr int64_t kFirstFiller = 3 + 256;

// Largest count accepted for any size option: keeps every element count and byte
// size far inside 64 bits.
constexpr int64_t kLargestSize = int64_t(1) << 24;

int64_t parse_count(const std::string& option, const std::string& text, int64_t least) {
    size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used, 10);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || value < least || value > kLargestSize) {
        throw std::invalid_argument(option + " needs a whole number from " + std::to_string(least) +
                                    " to " + std::to_string(kLargestSize) + ", got '" + text + "'");
    }
    return value;
}

uint64_t parse_seed(const std::string& text) {
    size_t used = 0;
    unsigned long long value = 0;
    try {
        value = std::stoull(text, &used, 10);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || text[0] == '-') {
        throw std::invalid_argument("--seed needs a whole number, got '" + text + "'");
    }
    return value;
}

ggml_type parse_type(const std::string& text) {
    for (const auto& t : kTypes) {
        if (text == t.word) {
            return t.type;
        }
    }
    throw std::invalid_argument("unknown type '" + text + "'");
}

// Returns false when the help text was asked for.
bool parse_options(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            return false;
        }
        if (arg == "--tokenizer") {
            o.tokenizer = true;
            continue;
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument(arg.rfind('-', 0) == 0 ? "missing value after " + arg
                                                               : "unexpected argument " + arg);
        }
        const std::string value = argv[++i];
        if (arg == "-o") {
            o.out = value;
        } else if (arg == "--layers") {
            o.layers = parse_count(arg, value, 0);
        } else if (arg == "--width") {
            o.width = parse_count(arg, value, 1);
        } else if (arg == "--ffn") {
            o.ffn = parse_count(arg, value, 1);
        } else if (arg == "--vocab") {
            o.vocab = parse_count(arg, value, 1);
        } else if (arg == "--type") {
            o.type = parse_type(value);
        } else if (arg == "--seed") {
            o.seed = parse_seed(value);
        } else if (arg == "--arch") {
            if (value.empty()) {
                throw std::invalid_argument("empty architecture");
            }
            o.arch = value;
        } else if (arg == "--shape") {
            o.shape = parse_shape(value);
        } else if (arg == "--name") {
            o.name = value;
        } else if (arg == "--template") {
            o.chat_template = value;
            o.has_template = true;
        } else {
            throw std::invalid_argument("unknown option " + arg);
        }
    }
    if (o.out.empty()) {
        throw std::invalid_argument("no output path, use -o <path>");
    }
    if (o.arch.empty()) {
        o.arch = shape_arch(o.shape);
    }
    if (o.ffn == 0) {
        o.ffn = 3 * o.width;
    }
    if (o.tokenizer && o.vocab < kFirstFiller) {
        throw std::invalid_argument("--tokenizer needs --vocab " + std::to_string(kFirstFiller) +
                                    " or more");
    }
    const int64_t block = ggml_blck_size(o.type);
    for (const auto& [what, n] :
         {std::pair<const char*, int64_t>{"width", o.width}, {"ffn", o.ffn}}) {
        if (n % block != 0) {
            throw std::invalid_argument(std::string(what) + " " + std::to_string(n) +
                                        " is not a multiple of " + std::to_string(block) +
                                        ", the block size of " + ggml_type_name(o.type));
        }
    }
    return true;
}

ShapeParams shape_params(const Options& o) {
    return ShapeParams{o.shape, o.layers, o.width, o.ffn, o.vocab, o.type, o.arch};
}

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
void set_tokenizer(gguf_context* g, const Options& o) {
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

void set_metadata(gguf_context* g, const Options& o) {
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
struct WeightStream {
    uint64_t state;

    void fill(float* out, int64_t n) {
        constexpr float kUnit = 1.0f / 16777216.0f;  // 2^-24
        constexpr float kScale = 0.04898979f;        // 0.02 * sqrt(6)
        for (int64_t i = 0; i < n; ++i) {
            state += 0x9e3779b97f4a7c15ull;
            const uint64_t z = sample_mix(state);
            const float u1 = float(z >> 40) * kUnit;
            const float u2 = float(z & 0xffffff) * kUnit;
            out[i] = (u1 + u2 - 1.0f) * kScale;
        }
    }
};

// Output file with a large buffer; removed again unless finished.
struct OutputFile {
    std::string path;
    FILE* file = nullptr;
    std::vector<char> buffer = std::vector<char>(8 << 20);
    bool finished = false;

    explicit OutputFile(const std::string& p) : path(p) {
        file = std::fopen(path.c_str(), "wb");
        if (file == nullptr) {
            throw std::runtime_error("cannot create " + path);
        }
        std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
    }
    ~OutputFile() {
        if (file != nullptr) {
            std::fclose(file);
        }
        if (!finished) {
            std::remove(path.c_str());
        }
    }
    void write(const void* data, size_t size) {
        if (size > 0 && std::fwrite(data, 1, size, file) != size) {
            throw std::runtime_error("cannot write " + path);
        }
    }
    void finish() {
        const bool failed = std::fflush(file) != 0 || std::ferror(file) != 0;
        const bool close_failed = std::fclose(file) != 0;
        file = nullptr;
        if (failed || close_failed) {
            throw std::runtime_error("cannot write " + path);
        }
        finished = true;
    }
};

// About 4 MiB of floats per chunk, at least one row.
constexpr int64_t kChunkElements = int64_t(1) << 20;

void write_tensor_data(OutputFile& out, const SampleTensor& t, uint64_t seed, size_t index,
                       size_t alignment) {
    WeightStream stream{sample_mix(seed ^ sample_mix(index + 1))};
    const int64_t rows_per_chunk = std::max<int64_t>(1, kChunkElements / t.ne0);
    const int64_t total_rows = t.ne1 * t.ne2;
    const size_t row_size = ggml_row_size(t.type, t.ne0);
    std::vector<float> values(size_t(rows_per_chunk * t.ne0));
    std::vector<uint8_t> encoded(row_size * size_t(rows_per_chunk));
    for (int64_t row = 0; row < total_rows; row += rows_per_chunk) {
        const int64_t rows = std::min(rows_per_chunk, total_rows - row);
        const int64_t n = rows * t.ne0;
        stream.fill(values.data(), n);
        if (t.norm) {
            for (int64_t i = 0; i < n; ++i) {
                values[size_t(i)] += 1.0f;
            }
        }
        if (t.type == GGML_TYPE_F32) {
            out.write(values.data(), size_t(n) * sizeof(float));
        } else {
            ggml_quantize_chunk(t.type, values.data(), encoded.data(), 0, rows, t.ne0, nullptr);
            out.write(encoded.data(), row_size * size_t(rows));
        }
    }
    const size_t size = row_size * size_t(total_rows);
    const size_t padding = (alignment - size % alignment) % alignment;
    static const std::vector<uint8_t> zeros(256, 0);
    for (size_t left = padding; left > 0;) {
        const size_t step = std::min(left, zeros.size());
        out.write(zeros.data(), step);
        left -= step;
    }
}

void write_model(const Options& o) {
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

    OutputFile out(o.out);
    out.write(meta.data(), meta.size());
    const size_t alignment = gguf_get_alignment(gguf.get());
    for (size_t i = 0; i < tensors.size(); ++i) {
        write_tensor_data(out, tensors[i], o.seed, i, alignment);
    }
    out.finish();
}

}  // namespace

}  // namespace tevrin

int main(int argc, char** argv) {
    try {
        tevrin::Options options;
        if (!tevrin::parse_options(argc, argv, options)) {
            std::fputs(tevrin::kUsage, stdout);
            return 0;
        }
        tevrin::write_model(options);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tevrin-sample: %s\n", e.what());
        return 1;
    }
}
