#include "fuse/output_metadata.h"

#include <gtest/gtest.h>

#include "tests/support/gguf_builder.h"

namespace tevrin {

// Defined in tensor_plan_test.cpp.
namespace {

using namespace tevrin::testing;

// Replaced keys and the borrowed chat template. One mark per source, base first:
// 't' a text template, 'n' a number under the template key, '-' none, 'q' a text
// template in a source of another family.
TEST(OutputMetadata, ReplacedKeysAndBorrowedTemplate) {
    struct Case {
        std::string marks;
        OutType out;
        uint32_t stack, file_type, block_count;
        std::string expect;  // the output's template: "t<source>"
        std::vector<std::string> notes;
    } cases[] = {
        {"-", {12, false, 15}, 0, 15, 2, "", {}},
        {"tt", {43, true, -1}, 0, 10, 2, "t0", {}},
        {"-q-ntt", {2, false, 2}, 40, 2, 40, "t4", {"chat template borrowed from source 4"}}};
    for (const auto& c : cases) {
        TempDir dir;
        std::vector<FixtureModel> models;
        for (size_t i = 0; i < c.marks.size(); ++i) {
            const char mark = c.marks[i];
            models.push_back(
                llama_fixture(2, 32, GGML_TYPE_F32, 1, mark == 'q' ? "qwen2" : "llama"));
            gguf_context* meta = models.back().meta.get();
            if (mark == 't' || mark == 'q') {
                gguf_set_val_str(meta, "tokenizer.chat_template",
                                 ("t" + std::to_string(i)).c_str());
            } else if (mark == 'n') {
                gguf_set_val_u32(meta, "tokenizer.chat_template", 9);
            }
        }
        gguf_set_val_u32(models[0].meta.get(), "general.file_type", 10);
        gguf_set_val_u32(models[0].meta.get(), "general.quantization_version", 1);
        SourceList sources = testing::open_fixtures(dir, models);
        Recipe recipe;
        recipe.name = "Merged";
        recipe.out = c.out;
        recipe.stack.assign(c.stack, StackSlice{0, 1});
        std::vector<std::string> notes;
        GgufHandle handle = make_output_metadata(sources, recipe, "default linear # x\n", notes);
        const gguf_context* out = handle.get();
        auto u32 = [&](const char* key) { return gguf_get_val_u32(out, gguf_find_key(out, key)); };
        auto text = [&](const char* key) { return std::string(gguf_string_or(out, key, "")); };

        EXPECT_EQ(text("tokenizer.chat_template"), c.expect) << c.marks;
        EXPECT_EQ(notes, c.notes);
        EXPECT_EQ(u32("general.file_type"), c.file_type);
        EXPECT_EQ(u32("llama.block_count"), c.block_count);
        EXPECT_EQ(u32("general.quantization_version"), 2u);
        EXPECT_EQ(text("general.name"), "Merged");
        EXPECT_EQ(text("tevrin.recipe"), "default linear # x\n");
        EXPECT_EQ(text("tevrin.compiler"), "tevrin-fusion 1.0");
        const int64_t names = gguf_find_key(out, "tevrin.sources");
        ASSERT_EQ(gguf_get_arr_n(out, names), c.marks.size());
        EXPECT_STREQ(gguf_get_arr_str(out, names, 0), "m0.gguf");
    }
}

// The layout must follow the output's own general.alignment key: tensors whose
// sizes are no multiple of 64, written and read back as a loader would.
TEST(OutputMetadata, LayoutFollowsStatedAlignment) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(fixture_model(64));
    SourceList sources = testing::open_fixtures(dir, models);
    std::vector<std::string> notes;
    GgufHandle out = make_output_metadata(sources, Recipe{}, "", notes);
    GgmlHandle records(ggml_init({ggml_tensor_overhead() * 3 + 1024, nullptr, true}));
    for (int64_t n : {5, 33, 3}) {
        ggml_tensor* t = ggml_new_tensor_1d(records.get(), GGML_TYPE_F32, n);
        ggml_set_name(t, ("t" + std::to_string(n)).c_str());
        gguf_add_tensor(out.get(), t);
    }
    ASSERT_TRUE(gguf_write_to_file(out.get(), dir.file("out.gguf").c_str(), true));
    GgufHandle back(gguf_init_from_file(dir.file("out.gguf").c_str(), {true, nullptr}));
    ASSERT_TRUE(back);
    EXPECT_EQ(gguf_get_alignment(back.get()), 64u);
    for (int64_t i = 0; i < 3; ++i) {
        EXPECT_EQ(gguf_get_tensor_offset(back.get(), i) % 64, 0u) << i;
    }
}

}  // namespace
}  // namespace tevrin
