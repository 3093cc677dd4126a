// The one-line JSON report of a GGUF file and the text of its key values: every
// value type, summaries of long arrays, cut strings and escapes.
#include "model/inspect.h"

#include <gtest/gtest.h>

#include "model/gguf_handle.h"
#include "model/kv_text.h"
#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// Writes the fixture and returns its report, which must always be valid JSON.
std::string report_of(const FixtureModel& model, bool with_tensors) {
    TempDir dir;
    write_fixture(model, dir.file("m.gguf"));
    const std::string doc = inspect_json(dir.file("m.gguf"), with_tensors);
    EXPECT_TRUE(is_valid_json(doc)) << doc;
    return doc;
}

TEST(InspectJson, WholeDocument) {
    FixtureModel m = fixture_model(64);
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
    FixtureModel m = fixture_model();
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

TEST(KvText, EveryTypeListsAndSummaries) {
    GgufHandle ctx(gguf_init_empty());
    gguf_context* g = ctx.get();
    gguf_set_val_u8(g, "u8", 65);
    gguf_set_val_i8(g, "i8", -128);
    gguf_set_val_u64(g, "u64", UINT64_MAX);
    gguf_set_val_i64(g, "i64", INT64_MIN);
    gguf_set_val_f32(g, "f32", 1e-5f);
    gguf_set_val_f64(g, "f64", 1234567.0);
    const char* strings[] = {"s", "s", "s", "s", "s", "s", "s", "s", "s"};
    gguf_set_arr_str(g, "8 str", strings, 8);
    gguf_set_arr_str(g, "9 str", strings, 9);
    gguf_set_arr_str(g, "0 str", strings, 0);
    const int32_t ints[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    gguf_set_arr_data(g, "16 i32", GGUF_TYPE_INT32, ints, 16);
    gguf_set_arr_data(g, "17 i32", GGUF_TYPE_INT32, ints, 17);
    const uint8_t bytes[] = {65, 0, 2};
    gguf_set_arr_data(g, "u8s", GGUF_TYPE_UINT8, bytes, 3);
    gguf_set_arr_data(g, "bools", GGUF_TYPE_BOOL, bytes, 3);
    const float floats[] = {0.5f, -1e-7f, 1e6f};
    gguf_set_arr_data(g, "f32s", GGUF_TYPE_FLOAT32, floats, 3);
    const double doubles[] = {1.0, 2.0};
    gguf_set_arr_data(g, "f64s", GGUF_TYPE_FLOAT64, doubles, 2);

    std::string texts;
    for (int64_t id = 0; id < gguf_get_n_kv(g); ++id) {
        texts += std::string(gguf_get_key(g, id)) + "=" + kv_value_text(g, id) + "; ";
    }
    EXPECT_EQ(texts,
              "u8=65; i8=-128; u64=18446744073709551615; "
              "i64=-9223372036854775808; f32=1e-05; f64=1.23457e+06; "
              "8 str=[s, s, s, s, s, s, s, s]; 9 str=[str x 9]; 0 str=[]; "
              "16 i32=[-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14]; 17 i32=[i32 x 17]; "
              "u8s=[65, 0, 2]; bools=[true, false, true]; f32s=[0.5, -1e-07, 1e+06]; "
              "f64s=[?, ?]; ");

    // Strings are cut as values only, never inside a listed array.
    const std::string a600(600, 'a'), b700(700, 'b');
    gguf_set_val_str(g, "600", a600.c_str());
    gguf_set_val_str(g, "601", (a600 + "z").c_str());
    const char* listed[] = {b700.c_str(), "q\"x"};
    gguf_set_arr_str(g, "listed", listed, 2);
    EXPECT_EQ(kv_text(g, "600"), a600);
    EXPECT_EQ(kv_text(g, "601"), a600 + "...");
    EXPECT_EQ(kv_text(g, "listed"), "[" + b700 + ", q\"x]");
    EXPECT_EQ(kv_text(g, "absent"), "");
}

}  // namespace
}  // namespace tevrin::testing
