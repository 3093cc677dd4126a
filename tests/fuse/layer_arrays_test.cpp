// Per-layer metadata arrays after stacks that repeat, reorder and mix the layers
// of two sources, and the arrays a stack must leave alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "fuse/fuse.h"
#include "fuse/output_metadata.h"
#include "recipe/parse_recipe.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

// Integer arrays hold `first`, first + 1, ...; string arrays "<tag>0", "<tag>1", ...
void add_ints(FixtureModel& m, const char* key, gguf_type type, int32_t first, size_t count) {
    std::vector<int32_t> ints(count);
    std::vector<int8_t> bools(count);  // a bool pattern: odd values true
    for (size_t i = 0; i < count; ++i) {
        ints[i] = first + int32_t(i);
        bools[i] = int8_t(ints[i] & 1);
    }
    const void* data =
        type == GGUF_TYPE_INT32 ? static_cast<const void*>(ints.data()) : bools.data();
    gguf_set_arr_data(m.meta.get(), key, type, data, count);
}

void add_texts(FixtureModel& m, const char* key, const std::string& tag, size_t count) {
    std::vector<std::string> texts;
    for (size_t i = 0; i < count; ++i) {
        texts.push_back(tag + std::to_string(i));
    }
    std::vector<const char*> pointers;
    for (const auto& t : texts) {
        pointers.push_back(t.c_str());
    }
    gguf_set_arr_str(m.meta.get(), key, pointers.data(), pointers.size());
}

// An array's entries as text, whatever its element type; "-" for no array.
std::string entries(const gguf_context* g, const char* key) {
    const int64_t id = gguf_find_key(g, key);
    if (id < 0 || gguf_get_kv_type(g, id) != GGUF_TYPE_ARRAY) {
        return "-";
    }
    std::string text;
    for (size_t i = 0; i < gguf_get_arr_n(g, id); ++i) {
        text += i == 0 ? "" : " ";
        switch (gguf_get_arr_type(g, id)) {
            case GGUF_TYPE_STRING:
                text += gguf_get_arr_str(g, id, i);
                break;
            case GGUF_TYPE_INT32:
                text += std::to_string(static_cast<const int32_t*>(gguf_get_arr_data(g, id))[i]);
                break;
            default:
                text += std::to_string(static_cast<const int8_t*>(gguf_get_arr_data(g, id))[i]);
        }
    }
    return text;
}

const char* const kHeads = "llama.attention.head_count";
const char* const kTypes = "llama.layer_types";
const char* const kWindow = "llama.attention.sliding_window_pattern";
const char* const kFfn = "llama.feed_forward_length";
const char* const kKv = "llama.attention.head_count_kv";
const char* const kSections = "llama.rope.dimension_sections";
const char* const kScores = "tokenizer.ggml.scores";

// Base of 4 layers: heads 10.., types a0.., window pattern 0 1 0 1, ffn 40..,
// kv 50.., plus arrays that are not per-layer (3 sections; 4 scores, not under
// the architecture). Donor of 6 layers: heads 20.., types b0.., a window pattern
// as int32 (another element type), kv with 5 entries (not one per its layer), no
// ffn.
std::vector<FixtureModel> two_sources() {
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    FixtureModel& base = models.back();
    add_ints(base, kHeads, GGUF_TYPE_INT32, 10, 4);
    add_texts(base, kTypes, "a", 4);
    add_ints(base, kWindow, GGUF_TYPE_BOOL, 0, 4);
    add_ints(base, kFfn, GGUF_TYPE_INT32, 40, 4);
    add_ints(base, kKv, GGUF_TYPE_INT32, 50, 4);
    add_ints(base, kSections, GGUF_TYPE_INT32, 60, 3);
    add_ints(base, kScores, GGUF_TYPE_INT32, 70, 4);
    models.push_back(llama_fixture(6, 32, GGML_TYPE_F32, 2));
    FixtureModel& donor = models.back();
    add_ints(donor, kHeads, GGUF_TYPE_INT32, 20, 6);
    add_texts(donor, kTypes, "b", 6);
    add_ints(donor, kWindow, GGUF_TYPE_INT32, 30, 6);
    add_ints(donor, kKv, GGUF_TYPE_INT32, 80, 5);
    return models;
}

TEST(LayerArrays, StackRebuildsEveryPerLayerArray) {
    const char* const from_base = "per-layer %s taken from the base for source 1";
    auto note = [&](const char* key) {
        char text[128];
        std::snprintf(text, sizeof text, from_base, key);
        return std::string(text);
    };
    const struct {
        const char* stack;
        const char *heads, *types, *window, *ffn, *kv;
        std::vector<std::string> notes;
    } cases[] = {
        {"stack 0:1 0:1 0:1", "11 11 11", "a1 a1 a1", "1 1 1", "41 41 41", "51 51 51", {}},
        {"stack 0:3 0:2 0:1 0:0 0:3",
         "13 12 11 10 13",
         "a3 a2 a1 a0 a3",
         "1 0 1 0 1",
         "43 42 41 40 43",
         "53 52 51 50 53",
         {}},
        // Donor layer 5 has base layer 3 as template, donor layer 2 base layer 1.
        {"stack 1:5 0:0 1:2 1:2 0:3",
         "25 10 22 22 13",
         "b5 a0 b2 b2 a3",
         "1 0 1 1 1",
         "43 40 41 41 43",
         "53 50 51 51 53",
         {note(kKv), note(kWindow), note(kFfn)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stack);
        TempDir dir;
        SourceList sources = open_fixtures(dir, two_sources());
        const Recipe recipe = parse_recipe(c.stack, 2);
        std::vector<std::string> notes;
        GgufHandle out = make_output_metadata(sources, recipe, c.stack, notes);
        EXPECT_EQ(entries(out.get(), kHeads), c.heads);
        EXPECT_EQ(entries(out.get(), kTypes), c.types);
        EXPECT_EQ(entries(out.get(), kWindow), c.window);
        EXPECT_EQ(entries(out.get(), kFfn), c.ffn);
        EXPECT_EQ(entries(out.get(), kKv), c.kv);
        EXPECT_EQ(entries(out.get(), kSections), "60 61 62");
        EXPECT_EQ(entries(out.get(), kScores), "70 71 72 73");
        std::sort(notes.begin(), notes.end());
        EXPECT_EQ(notes, c.notes);
    }
}

// An unstacked run keeps the base's arrays, donors of other depths or not; a
// stacked run is no longer refused and writes the rebuilt arrays to the file.
TEST(LayerArrays, UnstackedRunsKeepTheBaseHeader) {
    TempDir dir;
    const std::vector<FixtureModel> models = two_sources();
    const std::vector<std::string> paths = {dir.file("a.gguf"), dir.file("b.gguf")};
    write_fixture(models[0], paths[0]);
    write_fixture(models[1], paths[1]);
    for (const char* recipe : {"default linear", "stack 1:0-5"}) {
        SCOPED_TRACE(recipe);
        const FuseResult r = fuse(paths, recipe, dir.file("o.gguf"), 1, nullptr, {});
        ASSERT_TRUE(r.ok) << r.message;
        GgufHandle out(gguf_init_from_file(dir.file("o.gguf").c_str(), {true, nullptr}));
        ASSERT_TRUE(out);
        const bool stacked = recipe[0] == 's';
        EXPECT_EQ(entries(out.get(), kHeads), stacked ? "20 21 22 23 24 25" : "10 11 12 13");
        EXPECT_EQ(entries(out.get(), kFfn), stacked ? "40 41 41 42 42 43" : "40 41 42 43");
    }
}

// A base of no layers has no entry for a stacked layer that its donor lacks.
TEST(LayerArrays, BaseWithoutLayersStillRefusesWhatItCannotFill) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(0, 32, GGML_TYPE_F32, 1));
    add_ints(models.back(), kFfn, GGUF_TYPE_INT32, 40, 0);
    models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 2));
    SourceList sources = open_fixtures(dir, models);
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
