#include "fuse/output_metadata.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "model/kv_text.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::add_tensor;
using testing::fixture_model;
using testing::FixtureModel;
using testing::llama_fixture;
using testing::TempDir;
using testing::write_fixture;

SourceList open_all(const TempDir& dir, std::vector<FixtureModel>& models) {
    SourceList sources;
    for (size_t i = 0; i < models.size(); ++i) {
        const std::string path = dir.file(std::string("m").append(std::to_string(i)) + ".gguf");
        write_fixture(models[i], path);
        sources.push_back(std::make_unique<SourceModel>());
        sources.back()->open(path);
    }
    return sources;
}

// Type and value of key `id` of `a` equal those of the same key in `b` (the
// values of these fixtures are short enough to be shown whole).
bool same_value(const gguf_context* a, int64_t id, const gguf_context* b) {
    const int64_t other = gguf_find_key(b, gguf_get_key(a, id));
    if (other < 0 || gguf_get_kv_type(a, id) != gguf_get_kv_type(b, other)) {
        return false;
    }
    const bool array = gguf_get_kv_type(a, id) == GGUF_TYPE_ARRAY;
    return (!array || gguf_get_arr_type(a, id) == gguf_get_arr_type(b, other)) &&
           kv_value_text(a, id) == kv_value_text(b, other);
}

std::string str_key(const gguf_context* ctx, const char* key) {
    return gguf_string_or(ctx, key, "<none>");
}

int64_t u32_key(const gguf_context* ctx, const char* key) {
    const int64_t id = gguf_find_key(ctx, key);
    return id < 0 ? -1 : gguf_get_val_u32(ctx, id);
}

FixtureModel rich_base() {
    FixtureModel base = llama_fixture(2, 32, GGML_TYPE_F32, 1);
    gguf_context* m = base.meta.get();
    gguf_set_val_u8(m, "test.u8", 7);
    gguf_set_val_i16(m, "test.i16", -3);
    gguf_set_val_f32(m, "test.f32", 1.5f);
    gguf_set_val_f64(m, "test.f64", -2.25);
    gguf_set_val_i64(m, "test.i64", -5);
    gguf_set_val_bool(m, "test.bool", true);
    gguf_set_val_u32(m, "general.file_type", 10);
    gguf_set_val_u32(m, "general.quantization_version", 1);
    gguf_set_val_str(m, "tevrin.recipe", "old recipe");
    const int32_t numbers[] = {1, 2, 3};
    gguf_set_arr_data(m, "test.numbers", GGUF_TYPE_INT32, numbers, 3);
    const char* words[] = {"a", "b"};
    gguf_set_arr_str(m, "tokenizer.ggml.tokens", words, 2);
    return base;
}

TEST(OutputMetadata, BaseKeysAndRunRecord) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(rich_base());
    models.push_back(llama_fixture(5, 32, GGML_TYPE_F32, 2));
    SourceList sources = open_all(dir, models);
    sources[1]->path = "bare.gguf";

    struct Case {
        OutType out;
        size_t stack;
        int64_t file_type;
        int64_t block_count;
    } cases[] = {
        {{12, false, 15}, 0, 15, 2},
        {{43, true, -1}, 0, 10, 2},
        {{2, false, 2}, 40, 2, 40},
    };
    const std::set<std::string> replaced = {
        "general.name",      "general.file_type", "general.quantization_version",
        "llama.block_count", "tevrin.recipe",     "tevrin.compiler",
        "tevrin.sources"};
    for (const auto& c : cases) {
        Recipe recipe;
        recipe.name = "Merged";
        recipe.out = c.out;
        recipe.stack.assign(c.stack, StackSlice{0, 1});
        std::vector<std::string> notes;
        GgufHandle out = make_output_metadata(sources, recipe, "default linear # x\n", notes);
        const gguf_context* o = out.get();
        const gguf_context* base = sources[0]->gguf;

        for (int64_t id = 0; id < gguf_get_n_kv(base); ++id) {
            const std::string key = gguf_get_key(base, id);
            const bool kept = !replaced.count(key) ||
                              (key == "general.file_type" && c.out.file_type < 0) ||
                              (key == "llama.block_count" && c.stack == 0);
            EXPECT_EQ(same_value(base, id, o), kept) << key;
        }
        EXPECT_EQ(gguf_get_n_kv(o), gguf_get_n_kv(base) + 2);  // compiler and sources are new
        EXPECT_EQ(str_key(o, "general.name"), "Merged");
        EXPECT_EQ(u32_key(o, "general.file_type"), c.file_type);
        EXPECT_EQ(u32_key(o, "general.quantization_version"), 2);
        EXPECT_EQ(u32_key(o, "llama.block_count"), c.block_count);
        EXPECT_EQ(str_key(o, "tevrin.recipe"), "default linear # x\n");
        EXPECT_EQ(str_key(o, "tevrin.compiler"), "tevrin-fusion 1.0");
        const int64_t names = gguf_find_key(o, "tevrin.sources");
        ASSERT_EQ(gguf_get_arr_n(o, names), 2u);
        EXPECT_STREQ(gguf_get_arr_str(o, names, 0), "m0.gguf");
        EXPECT_STREQ(gguf_get_arr_str(o, names, 1), "bare.gguf");
        EXPECT_TRUE(notes.empty());
        EXPECT_EQ(str_key(o, "tokenizer.chat_template"), "<none>");
    }
}

// How a donor's chat template is borrowed. A donor qualifies only with the
// base's family and a string-typed key; a key of another type is passed over.
TEST(OutputMetadata, ChatTemplateBorrowing) {
    enum Template { none, text, number };
    struct Donor {
        const char* arch;
        Template tmpl;
    };
    struct Case {
        Template base;
        std::vector<Donor> donors;
        std::string expect;
        std::string note;
    } cases[] = {
        {none, {}, "<none>", ""},
        {text, {{"llama", text}}, "tmpl 0", ""},
        {none,
         {{"llama", none}, {"llama", text}, {"llama", text}},
         "tmpl 2",
         "chat template borrowed from source 2"},
        {none, {{"qwen2", text}}, "<none>", ""},
        {none,
         {{"llama", number}, {"llama", text}},
         "tmpl 2",
         "chat template borrowed from source 2"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        std::vector<FixtureModel> models;
        std::vector<Template> templates = {c.base};
        models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 1));
        for (const auto& d : c.donors) {
            models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 2, d.arch));
            templates.push_back(d.tmpl);
        }
        for (size_t i = 0; i < models.size(); ++i) {
            const char* key = "tokenizer.chat_template";
            if (templates[i] == text) {
                gguf_set_val_str(models[i].meta.get(), key,
                                 (std::string("tmpl ").append(std::to_string(i))).c_str());
            } else if (templates[i] == number) {
                gguf_set_val_u32(models[i].meta.get(), key, 9);
            }
        }
        SourceList sources = open_all(dir, models);
        std::vector<std::string> notes;
        GgufHandle out = make_output_metadata(sources, Recipe{}, "", notes);
        EXPECT_EQ(str_key(out.get(), "tokenizer.chat_template"), c.expect);
        EXPECT_EQ(notes,
                  c.note.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.note});
    }
}

// Writes the output as the driver does, with zero tensor data, and reads it back
// the way a loader would: the layout must follow the file's own alignment key.
TEST(OutputMetadata, LayoutFollowsStatedAlignment) {
    for (uint32_t alignment : {64u, 32u}) {
        TempDir dir;
        std::vector<FixtureModel> models;
        models.push_back(fixture_model(alignment));
        gguf_set_val_str(models[0].meta.get(), "general.architecture", "llama");
        add_tensor(models[0], "a", GGML_TYPE_F32, {5, 1, 1, 1});
        SourceList sources = open_all(dir, models);
        std::vector<std::string> notes;
        GgufHandle out = make_output_metadata(sources, Recipe{}, "", notes);
        EXPECT_EQ(gguf_get_alignment(out.get()), alignment);

        const std::vector<std::pair<ggml_type, int64_t>> tensors = {
            {GGML_TYPE_F32, 5}, {GGML_TYPE_F16, 33}, {GGML_TYPE_Q8_0, 32}, {GGML_TYPE_F32, 3}};
        ggml_init_params params = {ggml_tensor_overhead() * tensors.size() + 1024, nullptr, true};
        GgmlHandle records(ggml_init(params));
        for (size_t i = 0; i < tensors.size(); ++i) {
            const int64_t ne[4] = {tensors[i].second, 1, 1, 1};
            ggml_tensor* t = ggml_new_tensor(records.get(), tensors[i].first, 1, ne);
            ggml_set_name(t, (std::string("t").append(std::to_string(i))).c_str());
            gguf_add_tensor(out.get(), t);
        }
        std::vector<char> bytes(gguf_get_meta_size(out.get()));
        gguf_get_meta_data(out.get(), bytes.data());
        const int64_t last = int64_t(tensors.size()) - 1;
        const size_t data = gguf_get_tensor_offset(out.get(), last) +
                            GGML_PAD(gguf_get_tensor_size(out.get(), last), alignment);
        bytes.resize(bytes.size() + data, 0);
        const std::string path = dir.file("out.gguf");
        std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));

        ggml_context* loaded = nullptr;
        GgufHandle back(gguf_init_from_file(path.c_str(), {false, &loaded}));
        ASSERT_TRUE(back) << alignment;
        GgmlHandle loaded_data(loaded);
        EXPECT_EQ(gguf_get_alignment(back.get()), alignment);
        EXPECT_EQ(gguf_get_data_offset(back.get()) % alignment, 0u);
        ASSERT_EQ(gguf_get_n_tensors(back.get()), int64_t(tensors.size()));
        for (int64_t i = 0; i < gguf_get_n_tensors(back.get()); ++i) {
            EXPECT_EQ(gguf_get_tensor_offset(back.get(), i) % alignment, 0u) << i;
        }
    }
}

}  // namespace
}  // namespace tevrin
