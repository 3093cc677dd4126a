#include <gtest/gtest.h>

#include "model/inspect.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::read_file;

testing::CommandResult sample(const std::string& args) {
    return testing::run_command(std::string(testing::sample_exe()) + " " + args);
}

// token_embd and output span more than one chunk of generated values.
const std::string kShape = "--layers 1 --width 256 --ffn 512 --vocab 4100 --type q4_k ";

TEST(SampleModel, ShapesTypesSeedsAndFailure) {
    testing::TempDir dir;
    const std::string path = dir.file("m.gguf");
    ASSERT_EQ(sample(kShape + "--arch qwen2 --template '{{x}}' -o " + path).status, 0);
    const std::string doc = inspect_json(path, true);
    for (const char* part :
         {R"("arch":"qwen2","name":"tevrin sample","n_layer":"1","n_ctx_train":"2048",)"
          R"("n_embd":"256","n_head":"4","n_head_kv":"4",)",
          R"("has_template":true,)",
          R"("tensors":[["token_embd.weight","q4_K","256x4100"],)"
          R"(["blk.0.attn_norm.weight","f32","256"],["blk.0.attn_q.weight","q4_K","256x256"],)"
          R"(["blk.0.attn_k.weight","q4_K","256x256"],["blk.0.attn_v.weight","q4_K","256x256"],)"
          R"(["blk.0.attn_output.weight","q4_K","256x256"],["blk.0.ffn_norm.weight","f32","256"],)"
          R"(["blk.0.ffn_gate.weight","q4_K","256x512"],["blk.0.ffn_up.weight","q4_K","256x512"],)"
          R"(["blk.0.ffn_down.weight","q4_K","512x256"],["output_norm.weight","f32","256"],)"
          R"(["output.weight","q4_K","256x4100"]]})"}) {
        EXPECT_NE(doc.find(part), std::string::npos) << part << "\nin " << doc;
    }
    // Read back at the offsets the header gives, the norms lie around 1.
    for (float v : testing::read_tensor_floats(path, "output_norm.weight")) {
        ASSERT_NEAR(v, 1.0f, 0.06f);
    }

    ASSERT_EQ(sample(kShape + "--seed 7 -o " + dir.file("a")).status, 0);  // same seed, same bytes
    ASSERT_EQ(sample(kShape + "--seed 7 -o " + dir.file("b")).status, 0);
    ASSERT_EQ(sample(kShape + "--seed 8 -o " + dir.file("c")).status, 0);
    EXPECT_EQ(read_file(dir.file("a")), read_file(dir.file("b")));
    EXPECT_NE(read_file(dir.file("a")), read_file(dir.file("c")));

    const auto r = sample("--width 100 --type q8_0 -o " + dir.file("x"));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "tevrin-sample: width 100 is not a multiple of 32, the block size of q8_0\n");
    EXPECT_FALSE(testing::file_exists(dir.file("x")));
}

}  // namespace
}  // namespace tevrin
