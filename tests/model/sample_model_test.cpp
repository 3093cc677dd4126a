// The sample generator: the same seed gives the same bytes, and --tokenizer writes a
// vocabulary of fixed tokens, byte tokens and pieces.
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

}  // namespace
}  // namespace tevrin
