#include "model/inspect.h"

#include <gtest/gtest.h>

#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::add_tensor;
using testing::fixture_model;
using testing::FixtureModel;
using testing::TempDir;

bool has(const std::string& doc, const std::string& part) {
    return doc.find(part) != std::string::npos;
}

size_t count_of(const std::string& doc, const std::string& part) {
    size_t n = 0;
    for (size_t at = doc.find(part); at != std::string::npos; at = doc.find(part, at + 1)) {
        ++n;
    }
    return n;
}

// Writes the fixture and returns its report, which must always be valid JSON.
std::string report_of(const FixtureModel& model, bool with_tensors = false) {
    TempDir dir;
    const std::string path = dir.file("m.gguf");
    testing::write_fixture(model, path);
    const std::string doc = inspect_json(path, with_tensors);
    EXPECT_TRUE(testing::is_valid_json(doc)) << doc;
    return doc;
}

TEST(InspectJson, WholeDocumentInOrder) {
    FixtureModel m = fixture_model();
    gguf_context* g = m.meta.get();
    gguf_set_val_str(g, "general.architecture", "llama");
    gguf_set_val_str(g, "general.name", "Tiny \"q\"");
    gguf_set_val_u32(g, "llama.block_count", 1);
    gguf_set_val_u32(g, "llama.context_length", 4096);
    gguf_set_val_u32(g, "llama.embedding_length", 8);
    gguf_set_val_u32(g, "llama.attention.head_count", 2);
    gguf_set_val_u32(g, "llama.attention.head_count_kv", 1);
    gguf_set_val_str(g, "general.size_label", "1K");
    gguf_set_val_str(g, "tokenizer.ggml.model", "gpt2");
    gguf_set_val_str(g, "tokenizer.chat_template", "{{x}}");
    gguf_set_val_str(g, "tevrin.recipe", "default linear\n");
    gguf_set_val_f32(g, "llama.rope.freq_base", 10000.0f);
    const char* tokens[] = {"a", "b", "<s>"};
    gguf_set_arr_str(g, "tokenizer.ggml.tokens", tokens, 3);
    add_tensor(m, "token_embd.weight", GGML_TYPE_F16, {8, 4, 1, 1});
    add_tensor(m, "blk.0.attn_norm.weight", GGML_TYPE_F32, {8, 1, 1, 1});
    add_tensor(m, "blk.0.attn_q.weight", GGML_TYPE_Q8_0, {32, 2, 1, 1});

    const std::string head =
        R"({"ok":true,"version":3,"alignment":32,"arch":"llama","name":"Tiny \"q\"",)"
        R"("n_layer":"1","n_ctx_train":"4096","n_embd":"8","n_head":"2","n_head_kv":"1",)"
        R"("size_label":"1K","tokenizer":"gpt2","has_template":true,)"
        R"("tevrin_recipe":"default linear\n","kv":[["general.architecture","llama"],)"
        R"(["general.name","Tiny \"q\""],["llama.block_count","1"],)"
        R"(["llama.context_length","4096"],["llama.embedding_length","8"],)"
        R"(["llama.attention.head_count","2"],["llama.attention.head_count_kv","1"],)"
        R"(["general.size_label","1K"],["tokenizer.ggml.model","gpt2"],)"
        R"(["tevrin.recipe","default linear\n"],["llama.rope.freq_base","10000"],)"
        R"(["tokenizer.ggml.tokens","[a, b, <s>]"]],)"
        // 32 + 8 + 64 elements in 64 + 32 + 68 bytes
        R"("n_tensors":3,"n_params":104,"tensor_bytes":164,"bpw":12.6154,)"
        R"("types":[["f16",1,32],["f32",1,8],["q8_0",1,64]])";
    const std::string tensors =
        R"(,"tensors":[["token_embd.weight","f16","8x4"],["blk.0.attn_norm.weight","f32","8"],)"
        R"(["blk.0.attn_q.weight","q8_0","32x2"]])";
    EXPECT_EQ(report_of(m, false), head + "}");
    EXPECT_EQ(report_of(m, true), head + tensors + "}");
}

TEST(InspectJson, FailureDocumentForAnythingUnparsable) {
    TempDir dir;
    testing::write_file(dir.file("text"), "hello, not a model\n");
    testing::write_file(dir.file("empty"), "");
    testing::write_file(dir.file("magic-only"), "GGUF");
    for (const std::string& path : {dir.file("missing"), dir.file("text"), dir.file("empty"),
                                    dir.file("magic-only"), dir.path}) {
        EXPECT_EQ(inspect_json(path, true), R"({"ok":false,"error":"not a valid GGUF file"})")
            << path;
    }
}

TEST(InspectJson, ArchitectureAbsentOrNotAString) {
    FixtureModel absent = fixture_model();
    gguf_set_val_u32(absent.meta.get(), "unknown.block_count", 3);
    std::string doc = report_of(absent);
    EXPECT_TRUE(has(doc, R"("arch":"unknown","name":"","n_layer":"3","n_ctx_train":"",)"
                         R"("n_embd":"","n_head":"","n_head_kv":"","size_label":"","tokenizer":"",)"
                         R"("has_template":false,"tevrin_recipe":"")"))
        << doc;

    // A numeric architecture counts as absent; its value still shows in kv.
    FixtureModel numeric = fixture_model();
    gguf_set_val_u32(numeric.meta.get(), "general.architecture", 5);
    gguf_set_val_u32(numeric.meta.get(), "5.block_count", 9);
    doc = report_of(numeric);
    EXPECT_TRUE(has(doc, R"("arch":"unknown","name":"","n_layer":"",)")) << doc;
    EXPECT_TRUE(has(doc, R"("kv":[["general.architecture","5"],["5.block_count","9"]])")) << doc;
}

TEST(InspectJson, NumericKeysStandAsStrings) {
    FixtureModel m = fixture_model();
    gguf_set_val_str(m.meta.get(), "general.architecture", "qwen2");
    gguf_set_val_i64(m.meta.get(), "qwen2.block_count", 28);
    gguf_set_val_f64(m.meta.get(), "qwen2.context_length", 32768.0);
    gguf_set_val_bool(m.meta.get(), "general.name", true);
    const std::string doc = report_of(m);
    EXPECT_TRUE(has(doc, R"("arch":"qwen2","name":"true","n_layer":"28","n_ctx_train":"32768",)"))
        << doc;
}

// The fixture writer cannot store tensors without elements; their data section is
// empty anyway, so the header alone is the whole file.
std::string header_only_report(const FixtureModel& model) {
    ggml_init_params params = {ggml_tensor_overhead() * (model.tensors.size() + 1), nullptr, true};
    GgmlHandle ctx(ggml_init(params));
    GgufHandle out(gguf_init_empty());
    gguf_set_kv(out.get(), model.meta.get());
    for (const auto& t : model.tensors) {
        ggml_tensor* tensor = ggml_new_tensor(ctx.get(), t.type, 4, t.ne.data());
        ggml_set_name(tensor, t.name.c_str());
        gguf_add_tensor(out.get(), tensor);
    }
    TempDir dir;
    const std::string path = dir.file("h.gguf");
    EXPECT_TRUE(gguf_write_to_file(out.get(), path.c_str(), true));
    const std::string doc = inspect_json(path, true);
    EXPECT_TRUE(testing::is_valid_json(doc)) << doc;
    return doc;
}

TEST(InspectJson, NoTensorsAndZeroSizedTensors) {
    FixtureModel empty = fixture_model();
    EXPECT_TRUE(has(report_of(empty, true),
                    R"("kv":[],"n_tensors":0,"n_params":0,"tensor_bytes":0,"bpw":0,"types":[],)"
                    R"("tensors":[]})"));

    FixtureModel zero = fixture_model();
    add_tensor(zero, "a", GGML_TYPE_F32, {0, 4, 1, 1});
    add_tensor(zero, "b", GGML_TYPE_Q8_0, {0, 1, 1, 1});
    const std::string zdoc = header_only_report(zero);
    EXPECT_TRUE(has(
        zdoc,
        R"("n_tensors":2,"n_params":0,"tensor_bytes":0,"bpw":0,"types":[["f32",1,0],["q8_0",1,0]],)"
        R"("tensors":[["a","f32","0x4"],["b","q8_0","0"]]})"));
}

TEST(InspectJson, TypesInByteOrderAndShapeTexts) {
    FixtureModel m = fixture_model(64);
    add_tensor(m, "w1", GGML_TYPE_Q4_K, {256, 2, 1, 1});
    add_tensor(m, "w2", GGML_TYPE_F32, {4096, 1, 5, 1});
    add_tensor(m, "w3", GGML_TYPE_Q4_0, {32, 3, 1, 7});
    add_tensor(m, "w4", GGML_TYPE_BF16, {2, 3, 4, 5});
    add_tensor(m, "w5", GGML_TYPE_F32, {6, 1, 1, 1});
    const std::string doc = report_of(m, true);
    EXPECT_TRUE(has(doc, R"({"ok":true,"version":3,"alignment":64,)")) << doc;
    EXPECT_TRUE(has(doc, R"("types":[["bf16",1,120],["f32",2,20486],["q4_0",1,672],)"
                         R"(["q4_K",1,512]],)"))
        << doc;
    EXPECT_TRUE(has(doc, R"("tensors":[["w1","q4_K","256x2"],["w2","f32","4096"],)"
                         R"(["w3","q4_0","32x3"],["w4","bf16","2x3x4x5"],["w5","f32","6"]]})"))
        << doc;
}

TEST(InspectJson, LongRecipeIsCutInBothPlaces) {
    FixtureModel m = fixture_model();
    const std::string recipe = std::string(600, 'r') + "tail";
    gguf_set_val_str(m.meta.get(), "tevrin.recipe", recipe.c_str());
    const std::string doc = report_of(m);
    const std::string cut = std::string(600, 'r') + "...";
    EXPECT_TRUE(has(doc, R"("tevrin_recipe":")" + cut + "\"")) << doc;
    EXPECT_TRUE(has(doc, R"(["tevrin.recipe",")" + cut + "\"]")) << doc;
    EXPECT_FALSE(has(doc, "tail"));
}

TEST(InspectJson, ChatTemplateNeverInKv) {
    FixtureModel first = fixture_model();
    gguf_set_val_str(first.meta.get(), "tokenizer.chat_template", "short");
    gguf_set_val_str(first.meta.get(), "general.name", "n");
    std::string doc = report_of(first);
    EXPECT_TRUE(has(doc, R"("has_template":true,"tevrin_recipe":"","kv":[["general.name","n"]],)"))
        << doc;

    FixtureModel only = fixture_model();
    gguf_set_val_u32(only.meta.get(), "tokenizer.chat_template", 1);
    doc = report_of(only);
    EXPECT_TRUE(has(doc, R"("has_template":true,"tevrin_recipe":"","kv":[],)")) << doc;
}

TEST(InspectJson, MetadataTextIsEscaped) {
    FixtureModel m = fixture_model();
    std::string all;
    for (int b = 1; b < 256; ++b) {
        all += char(b);
    }
    gguf_set_val_str(m.meta.get(), "general.name", "a\nb\tc\"d\\e\x01");
    gguf_set_val_str(m.meta.get(), "k\"ey", all.substr(0, 200).c_str());
    add_tensor(m, "odd\x1fname", GGML_TYPE_F32, {1, 1, 1, 1});
    const std::string doc = report_of(m, true);
    EXPECT_TRUE(has(doc, R"("name":"a\nb\tc\"d\\e\u0001")")) << doc;
    EXPECT_TRUE(has(doc, R"(["k\"ey","\u0001\u0002)")) << doc;
    EXPECT_TRUE(has(doc, R"([["odd\u001fname","f32","1"]])")) << doc;
}

TEST(InspectJson, FiveThousandTensorsListFourThousand) {
    FixtureModel m = fixture_model();
    for (int i = 0; i < 5000; ++i) {
        std::string name = "t";
        add_tensor(m, name += std::to_string(i), GGML_TYPE_F32, {2, 1, 1, 1});
    }
    const std::string doc = report_of(m, true);
    EXPECT_TRUE(has(doc, R"("n_tensors":5000,"n_params":10000,"tensor_bytes":40000,"bpw":32,)"
                         R"("types":[["f32",5000,10000]],"tensors":[["t0","f32","2"],)"))
        << doc.substr(0, 400);
    EXPECT_EQ(count_of(doc, R"(","f32","2"])"), 4000u);
    EXPECT_TRUE(has(doc, R"(["t3999","f32","2"]]})"));
    EXPECT_FALSE(has(doc, R"("t4000")"));
}

TEST(JsonEscape, EveryByteClass) {
    struct Case {
        std::string in, out;
    };
    const Case cases[] = {
        {"plain / text", "plain / text"},
        {"\"", "\\\""},
        {"\\", "\\\\"},
        {"\n\r\t", "\\n\\r\\t"},
        {std::string(1, '\0'), "\\u0000"},
        {"\x01\x08\x0b\x0c\x1f", "\\u0001\\u0008\\u000b\\u000c\\u001f"},
        {"\x7f\x80\xff", "\x7f\x80\xff"},
        {"\xc3\xa9 and a cut \xc3", "\xc3\xa9 and a cut \xc3"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(json_escape(c.in), c.out) << c.out;
    }
    std::string all;
    for (int b = 0; b < 256; ++b) {
        all += char(b);
    }
    const std::string escaped = json_escape(all);
    EXPECT_TRUE(testing::is_valid_json("\"" + escaped + "\""));
    // 29 bytes in \u form, 5 in two-character form, the other 222 unchanged.
    EXPECT_EQ(escaped.size(), 29u * 6 + 5 * 2 + 222);
}

TEST(JsonCheck, RejectsBrokenDocuments) {
    for (const char* bad : {"", "{", "[1,]", "{\"a\" 1}", "\"\x01\"", "\"\\x\"", "01", "1.",
                            "[1] 2", "{\"a\":1,}", "tru"}) {
        EXPECT_FALSE(testing::is_valid_json(bad)) << bad;
    }
    for (const char* good : {"{}", "[]", "[1,-2.5e+06,true,false,null]", R"({"a":["\u00e9"]})"}) {
        EXPECT_TRUE(testing::is_valid_json(good)) << good;
    }
}

}  // namespace
}  // namespace tevrin
