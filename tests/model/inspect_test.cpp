#include "model/inspect.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::add_tensor;
using testing::FixtureModel;

// Writes the fixture and returns its report, which must always be valid JSON.
std::string report_of(const FixtureModel& model, bool with_tensors) {
    testing::TempDir dir;
    testing::write_fixture(model, dir.file("m.gguf"));
    const std::string doc = inspect_json(dir.file("m.gguf"), with_tensors);
    EXPECT_TRUE(testing::is_valid_json(doc)) << doc;
    return doc;
}

TEST(InspectJson, WholeDocument) {
    FixtureModel m = testing::fixture_model(64);
    gguf_context* g = m.meta.get();
    const std::string name = "Tiny \"q\"\\ \n\r\t\x01\x1f\x7f\xc3\xa9";
    const std::string escaped = R"(Tiny \"q\"\\ \n\r\t\u0001\u001f)"
                                "\x7f\xc3\xa9";
    gguf_set_val_str(g, "general.architecture", "llama");
    gguf_set_val_str(g, "general.name", name.c_str());
    gguf_set_val_u32(g, "llama.block_count", 1);
    gguf_set_val_i64(g, "llama.context_length", 4096);
    gguf_set_val_f64(g, "llama.embedding_length", 8.0);
    gguf_set_val_bool(g, "llama.attention.head_count", true);
    gguf_set_val_str(g, "tokenizer.chat_template", "{{x}}");
    gguf_set_val_str(g, "tevrin.recipe", "default linear\n");
    add_tensor(m, "token_embd.weight", GGML_TYPE_F16, {8, 4, 1, 1});
    add_tensor(m, "blk.0.attn_norm\x01", GGML_TYPE_F32, {8, 1, 1, 1});
    add_tensor(m, "blk.0.attn_q.weight", GGML_TYPE_Q8_0, {32, 2, 1, 1});
    add_tensor(m, "blk.0.ffn_up.weight", GGML_TYPE_F32, {4, 1, 5, 1});

    const std::string head =
        R"({"ok":true,"version":3,"alignment":64,"arch":"llama","name":")" + escaped +
        R"(","n_layer":"1","n_ctx_train":"4096","n_embd":"8","n_head":"true","n_head_kv":"",)"
        R"("size_label":"","tokenizer":"","has_template":true,"tevrin_recipe":"default linear\n",)"
        R"("kv":[["general.alignment","64"],["general.architecture","llama"],["general.name",")" +
        escaped +
        R"("],["llama.block_count","1"],["llama.context_length","4096"],)"
        R"(["llama.embedding_length","8"],["llama.attention.head_count","true"],)"
        R"(["tevrin.recipe","default linear\n"]],)"
        // 32 + 8 + 64 + 20 elements in 64 + 32 + 68 + 80 bytes
        R"("n_tensors":4,"n_params":124,"tensor_bytes":244,"bpw":15.7419,)"
        R"("types":[["f16",1,32],["f32",2,28],["q8_0",1,64]])";
    const std::string tensors =
        R"(,"tensors":[["token_embd.weight","f16","8x4"],["blk.0.attn_norm\u0001","f32","8"],)"
        R"(["blk.0.attn_q.weight","q8_0","32x2"],["blk.0.ffn_up.weight","f32","4"]])";
    EXPECT_EQ(report_of(m, false), head + "}");
    EXPECT_EQ(report_of(m, true), head + tensors + "}");
}

TEST(InspectJson, FiveThousandTensorsListFourThousand) {
    FixtureModel m = testing::fixture_model();
    for (int i = 0; i < 5000; ++i) {
        add_tensor(m, "t" + std::to_string(i), GGML_TYPE_F32, {2, 1, 1, 1});
    }
    const std::string doc = report_of(m, true);
    EXPECT_NE(doc.find(R"("n_tensors":5000,"n_params":10000,"tensor_bytes":40000,"bpw":32,)"
                       R"("types":[["f32",5000,10000]],"tensors":[["t0","f32","2"],)"),
              std::string::npos);
    const std::string tail = R"(["t3998","f32","2"],["t3999","f32","2"]]})";
    EXPECT_EQ(doc.substr(doc.size() - tail.size()), tail);
}

// Also a FIFO without a writer, which would block any open: it is refused before that.
TEST(InspectJson, FailureDocumentForAnythingUnparsable) {
    testing::TempDir dir;
    testing::write_file(dir.file("text"), "GGUF and then no model\n");
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const std::string& path :
         {dir.file("missing"), dir.file("text"), dir.path, dir.file("fifo")}) {
        EXPECT_EQ(inspect_json(path, true), R"({"ok":false,"error":"not a valid GGUF file"})");
    }
}

}  // namespace
}  // namespace tevrin
