// The sample generator: the same seed gives the same bytes, --tokenizer writes a
// vocabulary of fixed tokens, byte tokens and pieces, and each --shape has the
// tensors and keys its loader looks for.
#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::read_file;
using testing::run_command;

TEST(SampleModel, SameSeedSameBytes) {
    testing::TempDir dir;
    // token_embd and output span more than one chunk of generated values.
    const std::string exe = std::string(testing::sample_exe()) +
                            " --layers 1 --width 256 --ffn 512 --vocab 4100 --type q4_k --seed ";
    ASSERT_EQ(run_command(exe + "7 -o " + dir.file("a")).status, 0);
    ASSERT_EQ(run_command(exe + "7 -o " + dir.file("b")).status, 0);
    ASSERT_EQ(run_command(exe + "8 -o " + dir.file("c")).status, 0);
    EXPECT_EQ(read_file(dir.file("a")), read_file(dir.file("b")));
    EXPECT_NE(read_file(dir.file("a")), read_file(dir.file("c")));
}

TEST(SampleModel, TokenizerCoversTheVocabulary) {
    testing::TempDir dir;
    const std::string exe = std::string(testing::sample_exe()) + " --tokenizer --layers 0 -o ";
    ASSERT_EQ(run_command(exe + dir.file("t") + " --vocab 300").status, 0);
    GgufHandle g = read_gguf_header(dir.file("t").c_str());
    const int64_t tokens = gguf_find_key(g.get(), "tokenizer.ggml.tokens");
    ASSERT_EQ(gguf_get_arr_n(g.get(), tokens), 300u);
    const auto* types = static_cast<const int32_t*>(
        gguf_get_arr_data(g.get(), gguf_find_key(g.get(), "tokenizer.ggml.token_type")));
    const std::string lead = "\xe2\x96\x81";
    const std::vector<std::tuple<int, std::string, int>> expected = {
        {0, "<unk>", 2},    {2, "</s>", 3},       {3, "<0x00>", 6},
        {258, "<0xFF>", 6}, {259, lead + "a", 1}, {285, lead + "aa", 1}};  // id, text, token type
    for (const auto& [id, text, type] : expected) {
        EXPECT_EQ(gguf_get_arr_str(g.get(), tokens, size_t(id)), text) << id;
        EXPECT_EQ(types[id], type) << id;
    }
    // Fewer entries than the fixed tokens is refused.
    EXPECT_EQ(run_command(exe + dir.file("u") + " --vocab 258").status, 1);
}

// Per shape: architecture, and tensors with their shapes ("-" for absent), in
// a model of 2 layers, width 128 (2 heads), feed-forward 256, 300 tokens.
TEST(SampleModel, ShapesHoldTheirTensors) {
    const struct {
        const char* shape;
        const char* arch;
        std::vector<std::pair<std::string, std::string>> tensors;
    } cases[] = {
        {"llama", "llama", {{"output.weight", "128x300"}, {"blk.1.attn_k.weight", "128x128"}}},
        {"tied", "llama", {{"output.weight", "-"}, {"token_embd.weight", "128x300"}}},
        {"qwen2", "qwen2", {{"blk.0.attn_q.bias", "128"}, {"blk.1.attn_v.bias", "128"}}},
        {"moe",
         "llama",
         {{"blk.0.ffn_gate_inp.weight", "128x4"},
          {"blk.1.ffn_up_exps.weight", "128x256x4"},
          {"blk.1.ffn_down_exps.weight", "256x128x4"},
          {"blk.0.ffn_up.weight", "-"}}},
        {"deci", "deci", {{"blk.0.attn_k.weight", "128x128"}, {"blk.1.attn_v.weight", "128x64"}}},
        {"phi3",
         "phi3",
         {{"blk.0.attn_qkv.weight", "128x384"},
          {"blk.0.ffn_up.weight", "128x512"},
          {"blk.0.ffn_gate.weight", "-"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shape);
        testing::TempDir dir;
        const std::string cmd = std::string(testing::sample_exe()) +
                                " --layers 2 --width 128 --ffn 256 --vocab 300 --shape " + c.shape +
                                " -o " + dir.file("m");
        ASSERT_EQ(run_command(cmd).status, 0);
        GgufHandle g = read_gguf_header(dir.file("m").c_str());
        EXPECT_STREQ(gguf_string_or(g.get(), "general.architecture", ""), c.arch);
        for (const auto& [name, shape] : c.tensors) {
            const int64_t id = gguf_find_tensor(g.get(), name.c_str());
            std::string seen = "-";
            if (id >= 0) {
                const int64_t* ne = gguf_get_tensor_ne(g.get(), id);
                seen = std::to_string(ne[0]);
                for (int d = 1; d < 4 && ne[d] > 1; ++d) {
                    seen += "x" + std::to_string(ne[d]);
                }
            }
            EXPECT_EQ(seen, shape) << name;
        }
    }
    // deci: one entry per layer, odd layers with half the key/value heads.
    testing::TempDir dir;
    ASSERT_EQ(run_command(std::string(testing::sample_exe()) + " --layers 3 --shape deci -o " +
                          dir.file("d"))
                  .status,
              0);
    GgufHandle g = read_gguf_header(dir.file("d").c_str());
    const int64_t kv = gguf_find_key(g.get(), "deci.attention.head_count_kv");
    ASSERT_EQ(gguf_get_arr_n(g.get(), kv), 3u);
    const auto* heads = static_cast<const uint32_t*>(gguf_get_arr_data(g.get(), kv));
    EXPECT_EQ(std::vector<uint32_t>(heads, heads + 3), (std::vector<uint32_t>{4, 2, 4}));
}

}  // namespace
}  // namespace tevrin
