#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <map>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::run_command;
using testing::shell_quote;
using testing::TempDir;

testing::CommandResult sample(const std::string& args) {
    return run_command(std::string(testing::sample_exe()) + " " + args);
}

struct Shape {
    ggml_type type;
    int64_t ne0, ne1;
};

// Every tensor of a model made with --layers 2 --width 256 --ffn 512 --vocab 4100,
// where token_embd and output span more than one chunk of generated values.
std::map<std::string, Shape> expected_tensors(ggml_type t) {
    std::map<std::string, Shape> m = {{"token_embd.weight", {t, 256, 4100}},
                                      {"output_norm.weight", {GGML_TYPE_F32, 256, 1}},
                                      {"output.weight", {t, 256, 4100}}};
    for (const std::string& p : {std::string("blk.0."), std::string("blk.1.")}) {
        m[p + "attn_norm.weight"] = {GGML_TYPE_F32, 256, 1};
        m[p + "ffn_norm.weight"] = {GGML_TYPE_F32, 256, 1};
        for (const char* n : {"attn_q", "attn_k", "attn_v", "attn_output"}) {
            m[p + n + ".weight"] = {t, 256, 256};
        }
        m[p + "ffn_gate.weight"] = {t, 256, 512};
        m[p + "ffn_up.weight"] = {t, 256, 512};
        m[p + "ffn_down.weight"] = {t, 512, 256};
    }
    return m;
}

int64_t file_size(const std::string& path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 ? int64_t(st.st_size) : -1;
}

void check_model(const std::string& path, ggml_type type) {
    GgufHandle g = read_gguf_header(path.c_str());
    ASSERT_TRUE(g) << path;
    const auto expected = expected_tensors(type);
    ASSERT_EQ(gguf_get_n_tensors(g.get()), int64_t(expected.size()));
    size_t end = 0;
    for (int64_t i = 0; i < gguf_get_n_tensors(g.get()); ++i) {
        const std::string name = gguf_get_tensor_name(g.get(), i);
        ASSERT_TRUE(expected.count(name)) << name;
        const Shape& s = expected.at(name);
        const int64_t* ne = gguf_get_tensor_ne(g.get(), i);
        EXPECT_EQ(gguf_get_tensor_type(g.get(), i), s.type) << name;
        EXPECT_EQ(ne[0], s.ne0) << name;
        EXPECT_EQ(ne[1], s.ne1) << name;
        end = gguf_get_tensor_offset(g.get(), i) + gguf_get_tensor_size(g.get(), i);
    }
    // The file ends with the last tensor's data, padded to the alignment.
    const size_t align = gguf_get_alignment(g.get());
    EXPECT_EQ(file_size(path),
              int64_t(gguf_get_data_offset(g.get()) + (end + align - 1) / align * align));

    // Decoding at the recorded offsets gives norms near 1 and weights near 0.
    for (const char* name : {"output_norm.weight", "blk.1.ffn_norm.weight"}) {
        for (float v : testing::read_tensor_floats(path, name)) {
            ASSERT_NEAR(v, 1.0f, 0.06f) << name;
        }
    }
    const auto w = testing::read_tensor_floats(path, "output.weight");
    double sum = 0, sq = 0;
    for (float v : w) {
        ASSERT_LT(std::fabs(v), 0.06f);
        sum += v;
        sq += double(v) * v;
    }
    EXPECT_NEAR(sum / double(w.size()), 0.0, 0.001);
    EXPECT_NEAR(std::sqrt(sq / double(w.size())), 0.02, 0.003);
}

const char* kShape = "--layers 2 --width 256 --ffn 512 --vocab 4100";

TEST(SampleModel, ShapesTypesAndLayout) {
    TempDir dir;
    for (const auto& [word, type] : {std::pair<const char*, ggml_type>{"f16", GGML_TYPE_F16},
                                     {"f32", GGML_TYPE_F32},
                                     {"bf16", GGML_TYPE_BF16},
                                     {"q8_0", GGML_TYPE_Q8_0},
                                     {"q4_k", GGML_TYPE_Q4_K}}) {
        const std::string path = dir.file(std::string(word) + ".gguf");
        const auto r = sample(std::string(kShape) + " --type " + word + " -o " + path);
        ASSERT_EQ(r.status, 0) << r.err;
        SCOPED_TRACE(word);
        check_model(path, type);
    }
}

TEST(SampleModel, Metadata) {
    TempDir dir;
    const std::string path = dir.file("m.gguf");
    ASSERT_EQ(
        sample("--layers 3 --width 128 --arch qwen2 --name 'a b' --template '{{x}}' -o " + path)
            .status,
        0);
    GgufHandle g = read_gguf_header(path.c_str());
    ASSERT_TRUE(g);
    EXPECT_STREQ(gguf_string_or(g.get(), "general.architecture", ""), "qwen2");
    EXPECT_STREQ(gguf_string_or(g.get(), "general.name", ""), "a b");
    EXPECT_STREQ(gguf_string_or(g.get(), "tokenizer.chat_template", ""), "{{x}}");
    const std::pair<const char*, uint32_t> numbers[] = {{"qwen2.block_count", 3},
                                                        {"qwen2.context_length", 2048},
                                                        {"qwen2.embedding_length", 128},
                                                        {"qwen2.attention.head_count", 2},
                                                        {"qwen2.attention.head_count_kv", 2}};
    for (const auto& [key, value] : numbers) {
        const int64_t id = gguf_find_key(g.get(), key);
        ASSERT_GE(id, 0) << key;
        ASSERT_EQ(gguf_get_kv_type(g.get(), id), GGUF_TYPE_UINT32) << key;
        EXPECT_EQ(gguf_get_val_u32(g.get(), id), value) << key;
    }
    EXPECT_EQ(gguf_get_n_tensors(g.get()), 3 * 9 + 3);

    ASSERT_EQ(sample("--layers 0 -o " + path).status, 0);
    g = read_gguf_header(path.c_str());
    EXPECT_LT(gguf_find_key(g.get(), "tokenizer.chat_template"), 0);
    EXPECT_EQ(gguf_get_n_tensors(g.get()), 3);
}

TEST(SampleModel, SameSeedSameBytes) {
    TempDir dir;
    const std::string args = std::string(kShape) + " --type q8_0";
    ASSERT_EQ(sample(args + " --seed 7 -o " + dir.file("a")).status, 0);
    ASSERT_EQ(sample(args + " --seed 7 -o " + dir.file("b")).status, 0);
    ASSERT_EQ(sample(args + " --seed 8 -o " + dir.file("c")).status, 0);
    const std::string a = testing::read_file(dir.file("a"));
    EXPECT_EQ(a, testing::read_file(dir.file("b")));
    const std::string c = testing::read_file(dir.file("c"));
    EXPECT_EQ(a.size(), c.size());
    EXPECT_NE(a, c);
    // Tensors of one model differ from each other too.
    EXPECT_NE(testing::read_tensor_bytes(dir.file("a"), "blk.0.attn_q.weight"),
              testing::read_tensor_bytes(dir.file("a"), "blk.0.attn_k.weight"));
}

TEST(SampleModel, FailuresAreOneLineAndLeaveNoFile) {
    TempDir dir;
    const std::string out = " -o " + dir.file("x.gguf");
    const std::pair<std::string, std::string> cases[] = {
        {"--width 100 --type q8_0" + out,
         "tevrin-sample: width 100 is not a multiple of 32, the block size of q8_0\n"},
        {"--ffn 320 --type q4_k" + out,
         "tevrin-sample: ffn 320 is not a multiple of 256, the block size of q4_K\n"},
        {"--width 0" + out,
         "tevrin-sample: --width needs a whole number from 1 to 16777216, got '0'\n"},
        {"--vocab 12x" + out,
         "tevrin-sample: --vocab needs a whole number from 1 to 16777216, got '12x'\n"},
        {"--seed -1" + out, "tevrin-sample: --seed needs a whole number, got '-1'\n"},
        {"--type q9" + out, "tevrin-sample: unknown type 'q9'\n"},
        {"--bogus 1" + out, "tevrin-sample: unknown option --bogus\n"},
        {"--layers", "tevrin-sample: missing value after --layers\n"},
        {"--layers 2", "tevrin-sample: no output path, use -o <path>\n"},
        {"-o " + shell_quote(dir.file("no/such/x.gguf")),
         "tevrin-sample: cannot create " + dir.file("no/such/x.gguf") + "\n"},
    };
    for (const auto& [args, err] : cases) {
        const auto r = sample(args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.err, err) << args;
        EXPECT_FALSE(testing::file_exists(dir.file("x.gguf"))) << args;
    }
    const auto help = sample("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--template"), std::string::npos);
}

}  // namespace
}  // namespace tevrin
