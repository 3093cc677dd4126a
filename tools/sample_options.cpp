#include "tools/sample_options.h"

#include <stdexcept>
#include <utility>

#include "fuse/encode_rows.h"
#include "recipe/type_words.h"

namespace tevrin {
namespace {

constexpr const char* kUsage =
    "usage: tevrin-sample [options] -o <path>\n"
    "Writes a GGUF model with deterministic pseudo-random weights.\n"
    "\n"
    "  -o <path>        output file (required)\n"
    "  --layers N       number of blocks (default 4, 0 allowed)\n"
    "  --width N        embedding length (default 256)\n"
    "  --ffn N          feed-forward length (default 3 x width)\n"
    "  --vocab N        vocabulary size, rows of token_embd and output (default 512)\n"
    "  --type T         type of the matrices: a plain output type word of\n"
    "                   tevrin-fuse that needs no importance matrix (f32, f16,\n"
    "                   bf16, q8_0, q4_0, q4_k, q6_k, ...; default f16); norms are\n"
    "                   always f32\n"
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
    "  -t, --threads N  threads (default 0: every core); the bytes do not depend\n"
    "                   on it\n"
    "  -h, --help       this text\n"
    "\n"
    "Width and feed-forward length must be multiples of the type's block size\n"
    "(32 for q8_0/q4_0/q5_0, 256 for the k-quants). The head count is width / 64\n"
    "(at least 1), with as many key/value heads.\n";

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

// Any plain output type word of tevrin-fuse that ggml makes without an
// importance matrix.
ggml_type parse_type(const std::string& text) {
    for (const TypeWord& t : type_words()) {
        if (text == t.word && !t.out.keep && t.out.mix == QuantMix::none &&
            encodable_type(t.out.type)) {
            return ggml_type(t.out.type);
        }
    }
    throw std::invalid_argument("unknown type '" + text + "'");
}

}  // namespace

bool parse_sample_options(int argc, char** argv, SampleOptions& o) {
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
        } else if (arg == "-t" || arg == "--threads") {
            o.threads = int(parse_count(arg, value, 0));
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

const char* sample_usage() {
    return kUsage;
}

ShapeParams shape_params(const SampleOptions& o) {
    return ShapeParams{o.shape, o.layers, o.width, o.ffn, o.vocab, o.type, o.arch};
}

}  // namespace tevrin
