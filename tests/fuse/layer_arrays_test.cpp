// Per-layer metadata arrays after stacks that repeat, reorder and mix the layers
// of two sources, and the arrays a run must leave alone.
#include <gtest/gtest.h>

#include <algorithm>

#include "fuse/output_metadata.h"
#include "model/kv_text.h"
#include "recipe/parse_recipe.h"
#include "tests/fuse/fuse_fixtures.h"

namespace tevrin::testing {
namespace {

const char* const kHeads = "llama.attention.head_count";
const char* const kTypes = "llama.layer_types";
const char* const kWindow = "llama.attention.sliding_window_pattern";
const char* const kFfn = "llama.feed_forward_length";
const char* const kKv = "llama.attention.head_count_kv";

// An int32 or int8 array of `first`, first + 1, ... (as int8: odd values 1, others 0).
void add_ints(FixtureModel& m, const std::string& key, gguf_type type, int32_t first,
              size_t count) {
    std::vector<int32_t> ints(count);
    std::vector<int8_t> bits(count);
    for (size_t i = 0; i < count; ++i) {
        ints[i] = first + int32_t(i);
        bits[i] = int8_t(ints[i] & 1);
    }
    const void* data =
        type == GGUF_TYPE_INT32 ? static_cast<const void*>(ints.data()) : bits.data();
    gguf_set_arr_data(m.meta.get(), key.c_str(), type, data, count);
}

std::string from_base(const char* key) {
    return std::string("per-layer ") + key + " taken from the base for source 1";
}

// Base of 4 layers: heads 10.., types a0.., window pattern 0 1 0 1 as int8, ffn
// 40.., kv 50.., and arrays that are not per-layer (3 sections; 4 scores, not
// under the architecture). Donor of 6 layers: heads 20.., types b0.., the window
// pattern as int32 (another element type), kv of 5 entries (not one per layer),
// no ffn.
TEST(LayerArrays, StackRebuildsEveryPerLayerArray) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    add_ints(models[0], kHeads, GGUF_TYPE_INT32, 10, 4);
    set_words(models[0], kTypes, 4, "a");
    add_ints(models[0], kWindow, GGUF_TYPE_INT8, 0, 4);
    add_ints(models[0], kFfn, GGUF_TYPE_INT32, 40, 4);
    add_ints(models[0], kKv, GGUF_TYPE_INT32, 50, 4);
    add_ints(models[0], "llama.rope.dimension_sections", GGUF_TYPE_INT32, 60, 3);
    add_ints(models[0], "tokenizer.ggml.scores", GGUF_TYPE_INT32, 70, 4);
    models.push_back(llama_fixture(6, 32, GGML_TYPE_F32, 2));
    add_ints(models[1], kHeads, GGUF_TYPE_INT32, 20, 6);
    set_words(models[1], kTypes, 6, "b");
    add_ints(models[1], kWindow, GGUF_TYPE_INT32, 30, 6);
    add_ints(models[1], kKv, GGUF_TYPE_INT32, 80, 5);
    SourceList sources = open_fixtures(dir, models);
    const std::vector<std::string> donor_notes = {from_base(kKv), from_base(kWindow),
                                                  from_base(kFfn)};
    const struct {
        const char* recipe;
        const char *heads, *types, *window, *ffn, *kv;
        std::vector<std::string> notes = {};
    } cases[] = {
        {"default linear", "[10, 11, 12, 13]", "[a0, a1, a2, a3]", "[0, 1, 0, 1]",
         "[40, 41, 42, 43]", "[50, 51, 52, 53]"},
        {"stack 0:1 0:1 0:1", "[11, 11, 11]", "[a1, a1, a1]", "[1, 1, 1]", "[41, 41, 41]",
         "[51, 51, 51]"},
        {"stack 0:3 0:2 0:1 0:0 0:3", "[13, 12, 11, 10, 13]", "[a3, a2, a1, a0, a3]",
         "[1, 0, 1, 0, 1]", "[43, 42, 41, 40, 43]", "[53, 52, 51, 50, 53]"},
        // Donor layer 5 has base layer 3 as template, donor layer 2 base layer 1.
        {"stack 1:5 0:0 1:2 1:2 0:3", "[25, 10, 22, 22, 13]", "[b5, a0, b2, b2, a3]",
         "[1, 0, 1, 1, 1]", "[43, 40, 41, 41, 43]", "[53, 50, 51, 51, 53]", donor_notes},
        {"stack 1:0-5", "[20, 21, 22, 23, 24, 25]", "[b0, b1, b2, b3, b4, b5]",
         "[0, 1, 1, 0, 0, 1]", "[40, 41, 41, 42, 42, 43]", "[50, 51, 51, 52, 52, 53]", donor_notes},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.recipe);
        std::vector<std::string> notes;
        GgufHandle out = make_output_metadata(sources, parse_recipe(c.recipe, 2), "", notes);
        EXPECT_EQ(kv_text(out.get(), kHeads), c.heads);
        EXPECT_EQ(kv_text(out.get(), kTypes), c.types);
        EXPECT_EQ(kv_text(out.get(), kWindow), c.window);
        EXPECT_EQ(kv_text(out.get(), kFfn), c.ffn);
        EXPECT_EQ(kv_text(out.get(), kKv), c.kv);
        EXPECT_EQ(kv_text(out.get(), "llama.rope.dimension_sections"), "[60, 61, 62]");
        EXPECT_EQ(kv_text(out.get(), "tokenizer.ggml.scores"), "[70, 71, 72, 73]");
        std::sort(notes.begin(), notes.end());
        EXPECT_EQ(notes, c.notes);
    }
    // A base of no layers has no entry for a stacked layer that its donor lacks.
    models[0] = llama_fixture(0, 32, GGML_TYPE_F32, 1);
    add_ints(models[0], kFfn, GGUF_TYPE_INT32, 40, 0);
    TempDir other;
    sources = open_fixtures(other, models);
    std::vector<std::string> notes;
    try {
        make_output_metadata(sources, parse_recipe("stack 1:0-1", 2), "", notes);
        ADD_FAILURE() << "no failure";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  std::string("stack not supported: per-layer metadata ") + kFfn);
    }
}

}  // namespace
}  // namespace tevrin::testing
