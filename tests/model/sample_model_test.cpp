// The sample generator: the same seed gives the same bytes, --tokenizer writes a
// vocabulary of fixed tokens, byte tokens and pieces, and each --shape has the
// tensors and keys its loader looks for.
#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

int sample(const std::string& args) {
    return run_command(std::string(sample_exe()) + " " + args).status;
}

TEST(SampleModel, SameSeedSameBytes) {
    TempDir dir;
    // token_embd and output span more than one chunk of generated values.
    const std::string args = "--layers 1 --width 256 --ffn 512 --vocab 4100 --type q4_k --seed ";
    ASSERT_EQ(sample(args + "7 -o " + dir.file("a")) + sample(args + "7 -o " + dir.file("b")) +
                  sample(args + "8 -o " + dir.file("c")),
              0);
    EXPECT_EQ(read_file(dir.file("a")), read_file(dir.file("b")));
    EXPECT_NE(read_file(dir.file("a")), read_file(dir.file("c")));
}

TEST(SampleModel, TokenizerCoversTheVocabulary) {
    TempDir dir;
    ASSERT_EQ(sample("--tokenizer --layers 0 --vocab 300 -o " + dir.file("t")), 0);
    EXPECT_EQ(sample("--tokenizer --layers 0 --vocab 258 -o " + dir.file("u")), 1);  // too few
    GgufHandle g = read_gguf_header(dir.file("t").c_str());
    const int64_t tokens = gguf_find_key(g.get(), "tokenizer.ggml.tokens");
    ASSERT_EQ(gguf_get_arr_n(g.get(), tokens), 300u);
    const auto* types = static_cast<const int32_t*>(
        gguf_get_arr_data(g.get(), gguf_find_key(g.get(), "tokenizer.ggml.token_type")));
    const std::string lead = "\xe2\x96\x81";
    const std::tuple<int, std::string, int> expected[] = {
        // id, text, token type
        {0, "<unk>", 2},    {2, "</s>", 3},       {3, "<0x00>", 6},
        {258, "<0xFF>", 6}, {259, lead + "a", 1}, {285, lead + "aa", 1}};
    for (const auto& [id, text, type] : expected) {
        EXPECT_EQ(gguf_get_arr_str(g.get(), tokens, size_t(id)), text) << id;
        EXPECT_EQ(types[id], type) << id;
    }
}

// Per shape: architecture, and tensors with their shapes ("-" for absent), in
// a model of 2 layers (3 for deci), width 128 (2 heads), feed-forward 256, 300 tokens.
TEST(SampleModel, ShapesHoldTheirTensors) {
    using Tensors = std::vector<std::pair<std::string, std::string>>;
    // clang-format off
    const std::tuple<std::string, std::string, Tensors> cases[] = {
        {"llama", "llama", {{"output.weight", "128x300"}, {"blk.1.attn_k.weight", "128x128"}}},
        {"tied", "llama", {{"output.weight", "-"}, {"token_embd.weight", "128x300"}}},
        {"qwen2", "qwen2", {{"blk.0.attn_q.bias", "128"}, {"blk.1.attn_v.bias", "128"}}},
        {"moe", "llama", {{"blk.0.ffn_gate_inp.weight", "128x4"}, {"blk.0.ffn_up.weight", "-"},
                          {"blk.1.ffn_up_exps.weight", "128x256x4"},
                          {"blk.1.ffn_down_exps.weight", "256x128x4"}}},
        // Odd layers with half the key/value heads.
        {"deci", "deci", {{"blk.0.attn_k.weight", "128x128"}, {"blk.1.attn_v.weight", "128x64"}}},
        {"phi3", "phi3", {{"blk.0.attn_qkv.weight", "128x384"}, {"blk.0.ffn_up.weight", "128x512"},
                          {"blk.0.ffn_gate.weight", "-"}}},
    };
    // clang-format on
    for (const auto& [shape, arch, tensors] : cases) {
        SCOPED_TRACE(shape);
        TempDir dir;
        ASSERT_EQ(
            sample("--layers " + std::string(shape == "deci" ? "3" : "2") +
                   " --width 128 --ffn 256 --vocab 300 --shape " + shape + " -o " + dir.file("m")),
            0);
        GgufHandle g = read_gguf_header(dir.file("m").c_str());
        EXPECT_EQ(gguf_string_or(g.get(), "general.architecture", ""), arch);
        for (const auto& [name, expected] : tensors) {
            const int64_t id = gguf_find_tensor(g.get(), name.c_str());
            std::string seen = "-";
            for (int d = 0; id >= 0 && d < 4 && (d == 0 || gguf_get_tensor_ne(g.get(), id)[d] > 1);
                 ++d) {
                seen =
                    (d == 0 ? "" : seen + "x") + std::to_string(gguf_get_tensor_ne(g.get(), id)[d]);
            }
            EXPECT_EQ(seen, expected) << name;
        }
        const int64_t kv = gguf_find_key(g.get(), "deci.attention.head_count_kv");
        if (shape == "deci") {  // one entry per layer
            ASSERT_EQ(gguf_get_arr_n(g.get(), kv), 3u);
            const auto* heads = static_cast<const uint32_t*>(gguf_get_arr_data(g.get(), kv));
            EXPECT_EQ(std::vector<uint32_t>(heads, heads + 3), (std::vector<uint32_t>{2, 1, 2}));
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
