#include <gtest/gtest.h>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

TEST(SampleModel, TokenizerCoversTheVocabulary) {
    testing::TempDir dir;
    const std::string exe = std::string(testing::sample_exe()) + " --tokenizer --layers 0 -o ";
    ASSERT_EQ(testing::run_command(exe + dir.file("t") + " --vocab 300").status, 0);
    GgufHandle g = read_gguf_header(dir.file("t").c_str());
    const int64_t tokens = gguf_find_key(g.get(), "tokenizer.ggml.tokens");
    ASSERT_EQ(gguf_get_arr_n(g.get(), tokens), 300u);
    const auto* types = static_cast<const int32_t*>(
        gguf_get_arr_data(g.get(), gguf_find_key(g.get(), "tokenizer.ggml.token_type")));
    const std::string lead = "\xe2\x96\x81";
    for (const auto& [id, text, type] : {std::tuple<int, std::string, int>{0, "<unk>", 2},
                                         {2, "</s>", 3},
                                         {3, "<0x00>", 6},
                                         {258, "<0xFF>", 6},
                                         {259, lead + "a", 1},
                                         {285, lead + "aa", 1}}) {
        EXPECT_EQ(gguf_get_arr_str(g.get(), tokens, size_t(id)), text) << id;
        EXPECT_EQ(types[id], type) << id;
    }
    // Fewer entries than the fixed tokens is refused.
    EXPECT_EQ(testing::run_command(exe + dir.file("u") + " --vocab 258").status, 1);
}

}  // namespace
}  // namespace tevrin
