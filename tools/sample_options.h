// The command line of tevrin-sample: its options, their defaults and checks,
// and the help text. Single-threaded use only.
#pragma once

#include <cstdint>
#include <string>

#include "tools/sample_shapes.h"

namespace tevrin {

// Tokenizer layout: <unk>, <s>, </s>, the 256 byte tokens, then filler pieces.
inline constexpr int64_t kFirstFiller = 3 + 256;

struct SampleOptions {
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
    int threads = 0;  // 0: every core
    std::string out;
};

const char* sample_usage();

// Fills `o` from the arguments and settles the defaults that depend on others;
// returns false when the help text was asked for. Fails with a one-line message
// for an unknown option, a missing or malformed value, or sizes the type's
// block size does not divide.
bool parse_sample_options(int argc, char** argv, SampleOptions& o);

ShapeParams shape_params(const SampleOptions& o);

}  // namespace tevrin
