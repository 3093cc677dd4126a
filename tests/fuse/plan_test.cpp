// Planning without writing: globs, layer maps and schedules, the output type per
// type word, rule precedence and source lookup, stacked layers and the output's keys.
#include "fuse/output_metadata.h"
#include "fuse/stack_plan.h"
#include "fuse/tensor_plan.h"

#include <gtest/gtest.h>

#include <array>

#include "recipe/parse_recipe.h"
#include "tests/fuse/fuse_fixtures.h"

namespace tevrin {
namespace {

using namespace tevrin::testing;

// Plans every tensor of the base as a plain run does.
std::map<std::string, TensorPlan> plan_plain(const Recipe& recipe, const SourceList& sources) {
    std::vector<TensorPlan> plans;
    PlanContext ctx{recipe, sources[0]->n_layer, sources, plans};
    std::map<std::string, TensorPlan> by_name;
    for (const auto& [name, position] : sources[0]->tensor_index) {
        add_tensor_plan(ctx, name, *sources[0], position, name, block_layer(name), -1);
        by_name[name] = plans.back();
    }
    return by_name;
}

// A base of 4 layers; a donor of the same depth in another type (still a match)
// that lacks blk.1.ffn_up and holds blk.1.attn_q in another shape; a donor of 7.
std::vector<FixtureModel> mixed_models() {
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F16, 2));
    drop_tensor(models[1], "blk.1.ffn_up.weight");
    tensor_named(models[1], "blk.1.attn_q.weight").ne = {32, 16, 1, 1};
    models.push_back(llama_fixture(7, 32, GGML_TYPE_F32, 3));
    return models;
}

TEST(TensorPlan, GlobAndLayerMap) {
    const std::tuple<std::string, std::string, bool> globs[] = {
        {"attn", "blk.0.attn_q.weight", false},  // the whole text must match
        {"*attn*", "blk.0.attn_q.weight", true},
        {"*", "", true},
        {"a**", "a", true},
        {"a?c", "abc", true},
        {"a?", "a", false},
        {"", "a", false},
        {"*a*a*a*a*a*a*a*b", std::string(60, 'a'), false},  // in polynomial time
    };
    for (const auto& [pattern, text, match] : globs) {
        EXPECT_EQ(glob_match(pattern, text), match) << pattern << " " << text;
    }
    // {layer, from, to, expected}: halves round away from 0; ends clamp; stacks of 1.
    const int32_t maps[][4] = {{16, 32, 24, 12}, {31, 32, 24, 23}, {1, 5, 3, 1}, {3, 5, 3, 2},
                               {9, 8, 8, 7},     {31, 32, 0, 0},   {9, 1, 5, 4}};
    for (const auto& m : maps) {
        EXPECT_EQ(map_layer(m[0], m[1], m[2]), m[3]) << m[0] << " " << m[1] << " " << m[2];
    }
}

// Schedules written in a recipe and evaluated for a layer: the ends (held outside
// the range), every knot, between knots, and outside the blocks (layer -1), where
// the midpoint counts.
TEST(TensorPlan, SchedulesMeetEveryPoint) {
    const std::pair<const char*, std::vector<std::pair<int32_t, float>>> cases[] = {
        {"layers 10-20 slerp 0.2>0.8", {{15, 0.5f}, {5, 0.2f}, {25, 0.8f}}},
        {"layers 7 slerp 0.2>0.8", {{7, 0.5f}}},  // one layer: the midpoint
        // At 12: 0.2 + 0.6 * 2/5; at 18: 0.8 - 0.4 * 3/5.
        {"layers 10-20 slerp 0.2>0.8>0.4",
         {{15, 0.8f}, {20, 0.4f}, {12, 0.44f}, {18, 0.56f}, {30, 0.4f}, {-1, 0.8f}}},
        {"layers 0-6 slerp 0>1>0>1", {{3, 0.5f}, {-1, 0.5f}}},
        {"layers 0-2 slerp 0.1>0.7>0.3", {{1, 0.7f}}},
        {"layers 0-9 slerp 0.1>0.7>0.3", {{3, 0.1f + 0.6f * (6.0f / 9.0f)}}},
        {"layers 4 slerp 0.1>0.7>0.3", {{4, 0.7f}}},
    };
    for (const auto& [text, points] : cases) {
        const LayerRule rule = parse_recipe(text, 3).layer_rules.at(0);
        for (const auto& [layer, t] : points) {
            EXPECT_FLOAT_EQ(resolve_spec(rule.spec, layer, rule.first, rule.last).t, t)
                << text << " at " << layer;
        }
    }
    // Knots and ends are exact, not merely close.
    const LayerRule knots = parse_recipe("layers 0-6 slerp 0.1>0.7>0.3>0.9", 3).layer_rules[0];
    for (const auto& [layer, t] : {std::pair{0, 0.1f}, {2, 0.7f}, {4, 0.3f}, {6, 0.9f}}) {
        EXPECT_EQ(resolve_spec(knots.spec, layer, 0, 6).t, t) << layer;
    }
    // Weight lists run through every point (a short one as 0); t alone has two points.
    const LayerRule lists = parse_recipe("layers 0-4 ties 0.5 1,0>0,1,1>1", 3).layer_rules[0];
    const std::vector<std::vector<float>> expected = {
        {1, 0, 0}, {0.5f, 0.5f, 0.5f}, {0, 1, 1}, {0.5f, 0.5f, 0.5f}, {1, 0, 0}};
    for (int32_t layer = 0; layer <= 4; ++layer) {
        const MethodSpec spec = resolve_spec(lists.spec, layer, 0, 4);
        EXPECT_EQ(spec.weights, expected[size_t(layer)]) << layer;
        EXPECT_FLOAT_EQ(spec.t, 0.5f - 0.5f * float(layer) / 4.0f);
    }
    const LayerRule grown = parse_recipe("layers 0-10 ties 0.5 1>0,1", 3).layer_rules[0];
    EXPECT_EQ(resolve_spec(grown.spec, 5, 0, 10).weights, std::vector<float>({0.5f, 0.5f}));
}

TEST(TensorPlan, OutputTypeForEveryTypeWord) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(fixture_model());
    add_tensor(models[0], "vec", GGML_TYPE_F16, {4096, 1, 1, 1});
    add_tensor(models[0], "mat", GGML_TYPE_F16, {4096, 2, 1, 1});
    add_tensor(models[0], "odd", GGML_TYPE_F16, {2880, 2, 1, 1});
    add_tensor(models[0], "col", GGML_TYPE_F16, {1, 4096, 1, 1});
    add_tensor(models[0], "q6k", GGML_TYPE_Q6_K, {256, 2, 1, 1});
    add_tensor(models[0], "iq2", GGML_TYPE_IQ2_XXS, {256, 2, 1, 1})
        .raw.assign(2 * ggml_row_size(GGML_TYPE_IQ2_XXS, 256), 0);
    SourceList sources = open_fixtures(dir, models);
    // Expected type of vec, mat, odd, col, q6k, iq2 for each word of the type table.
    const std::pair<OutType, std::array<int32_t, 6>> rows[] = {
        {{0, false, 0}, {0, 0, 0, 0, 0, 0}},        {{1, false, 1}, {0, 1, 1, 1, 1, 1}},
        {{30, false, 32}, {0, 30, 30, 30, 30, 30}}, {{8, false, 7}, {0, 8, 8, 1, 8, 8}},
        {{14, false, 18}, {0, 14, 1, 1, 14, 14}},   {{13, false, 17}, {0, 13, 1, 1, 13, 13}},
        {{6, false, 8}, {0, 6, 6, 1, 6, 6}},        {{12, false, 15}, {0, 12, 1, 1, 12, 12}},
        {{2, false, 2}, {0, 2, 2, 1, 2, 2}},        {{43, true, -1}, {0, 1, 1, 1, 14, 8}}};
    const char* names[] = {"vec", "mat", "odd", "col", "q6k", "iq2"};
    for (const auto& [out, expect] : rows) {
        Recipe recipe;
        recipe.out = out;
        auto plans = plan_plain(recipe, sources);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(plans[names[i]].out_type, expect[i]) << out.type << " " << names[i];
        }
    }
}

// Rule precedence, and the search of every source, the deeper donor at 2L.
TEST(TensorPlan, RulesAndSourceLookup) {
    TempDir dir;
    SourceList sources = open_fixtures(dir, mixed_models());
    const Recipe recipe = parse_recipe(
        "default slerp 0.2>0.8\ntensor *attn_q* ties 0.1\ntensor blk.2.attn_q* dare 0.3\n"
        "layers 0-100 pick 0\nlayers 2-3 chaos 0.2>0.8",
        3);
    auto plans = plan_plain(recipe, sources);
    const struct {
        std::string name;
        BlendMethod method;
        float t;
        int32_t found_in[3];  // layer searched per source, -1 where the source drops out
    } cases[] = {{"blk.1.attn_q.weight", BlendMethod::ties, 0.1f, {1, -1, 2}},
                 {"blk.2.attn_q.weight", BlendMethod::dare, 0.3f, {2, 2, 4}},
                 {"blk.1.ffn_up.weight", BlendMethod::pick, 0.5f, {1, -1, 2}},
                 {"blk.2.ffn_up.weight", BlendMethod::chaos, 0.2f, {2, 2, 4}},
                 {"blk.3.ffn_up.weight", BlendMethod::chaos, 0.8f, {3, 3, 6}},
                 {"output.weight", BlendMethod::slerp, 0.5f, {0, 0, 0}}};
    for (const auto& c : cases) {
        const TensorPlan& plan = plans[c.name];
        EXPECT_EQ(plan.spec.method, c.method) << plan.name;
        EXPECT_FLOAT_EQ(plan.spec.t, c.t) << plan.name;
        for (size_t s = 0; s < 3; ++s) {
            const int32_t l = c.found_in[s];
            const std::string at = "blk." + std::to_string(l) + "." + block_suffix(c.name);
            EXPECT_EQ(
                plan.source_tensors[s],
                l < 0 ? -1 : sources[s]->tensor_index.at(block_layer(c.name) < 0 ? c.name : at));
        }
        EXPECT_EQ(plan.fallback, c.found_in[1] < 0) << plan.name;
    }
}

// "<output name> <source>:<source layer of the same role>", and for a fallback why
// the slice's source could not give it.
std::string describe(const TensorPlan& plan, const SourceList& sources) {
    if (plan.only_source < 0) {
        return plan.name;
    }
    const auto s = size_t(plan.only_source);
    std::string from = tensor_name(*sources[s], plan.source_tensors[s]);
    from = block_suffix(from) == block_suffix(plan.name) ? std::to_string(block_layer(from)) : from;
    std::string why;
    for (const DropReason reason : plan.dropped) {
        why += reason == DropReason::none ? "" : std::string(" ") + drop_reason_word(reason);
    }
    return plan.name + " " + std::to_string(s) + ":" + from + why;
}

// Starts with the deeper donor, repeats a base layer, takes the odd donor layer.
TEST(StackPlan, LayersFromMixedSources) {
    TempDir dir;
    std::vector<FixtureModel> models = mixed_models();
    add_tensor(models[0], "blk.3.extra", GGML_TYPE_F32, {32, 1, 1, 1});
    SourceList sources = open_fixtures(dir, models);
    const Recipe recipe = parse_recipe("default slerp 0.2>0.8\nstack 2:6 0:1 0:1 1:1", 3);
    std::vector<TensorPlan> plans;
    PlanContext ctx{recipe, 4, sources, plans};
    plan_stack(ctx);
    std::string seen;
    for (const TensorPlan& plan : plans) {
        seen += describe(plan, sources) + "; ";
    }
    EXPECT_EQ(seen,
              "token_embd.weight; output_norm.weight; output.weight; blk.0.attn_norm.weight 2:6; "
              "blk.0.attn_q.weight 2:6; blk.0.ffn_up.weight 2:6; blk.0.extra 0:3 missing; "
              "blk.1.attn_norm.weight 0:1; blk.1.attn_q.weight 0:1; blk.1.ffn_up.weight 0:1; "
              "blk.2.attn_norm.weight 0:1; blk.2.attn_q.weight 0:1; blk.2.ffn_up.weight 0:1; "
              "blk.3.attn_norm.weight 1:1; blk.3.attn_q.weight 0:1 other shape; "
              "blk.3.ffn_up.weight 0:1 missing; ");
    EXPECT_FLOAT_EQ(plans[3].spec.t, 0.2f);  // schedules run over the output layers
    EXPECT_FLOAT_EQ(plans.back().spec.t, 0.8f);
}

// Replaced keys, the layout alignment the base states, and the borrowed chat
// template. One mark per source, base first: 't' a text template, 'n' a number
// under the template key, '-' none, 'q' a text template in another family.
TEST(OutputMetadata, ReplacedKeysAndBorrowedTemplate) {
    const struct {
        std::string marks;
        OutType out;
        uint32_t stack, file_type, block_count, alignment;
        std::string expect;  // the output's template: "t<source>"
        std::vector<std::string> notes;
    } cases[] = {
        {"-", {12, false, 15}, 0, 15, 2, 64, "", {}},
        {"tt", {43, true, -1}, 0, 10, 2, 32, "t0", {}},
        {"-q-ntt", {2, false, 2}, 40, 2, 40, 32, "t4", {"chat template borrowed from source 4"}}};
    for (const auto& c : cases) {
        TempDir dir;
        std::vector<FixtureModel> models;
        for (size_t i = 0; i < c.marks.size(); ++i) {
            const char mark = c.marks[i];
            models.push_back(
                llama_fixture(2, 32, GGML_TYPE_F32, 1, mark == 'q' ? "qwen2" : "llama"));
            gguf_context* meta = models.back().meta.get();
            if (mark == 'n') {
                gguf_set_val_u32(meta, "tokenizer.chat_template", 9);
            } else if (mark != '-') {
                gguf_set_val_str(meta, "tokenizer.chat_template",
                                 ("t" + std::to_string(i)).c_str());
            }
        }
        gguf_set_val_u32(models[0].meta.get(), "general.file_type", 10);
        gguf_set_val_u32(models[0].meta.get(), "general.quantization_version", 1);
        gguf_set_val_u32(models[0].meta.get(), "general.alignment", c.alignment);
        SourceList sources = open_fixtures(dir, models);
        Recipe recipe;
        recipe.name = "Merged", recipe.out = c.out;
        recipe.stack.assign(c.stack, StackSlice{0, 1});
        std::vector<std::string> notes;
        GgufHandle handle = make_output_metadata(sources, recipe, "default linear # x\n", notes);
        const gguf_context* out = handle.get();
        auto u32 = [&](const char* key) { return gguf_get_val_u32(out, gguf_find_key(out, key)); };
        auto text = [&](const char* key) { return std::string(gguf_string_or(out, key, "")); };
        EXPECT_EQ(text("tokenizer.chat_template"), c.expect) << c.marks;
        EXPECT_EQ(notes, c.notes);
        EXPECT_EQ(gguf_get_alignment(out), c.alignment);  // the writer lays tensors out by it
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

}  // namespace
}  // namespace tevrin
