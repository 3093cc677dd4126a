#include "fuse/tensor_plan.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/gguf_builder.h"

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

MethodSpec spec_of(BlendMethod method, float t, float t_end = 0, bool scheduled = false) {
    MethodSpec spec;
    spec.method = method, spec.t = t, spec.t_end = t_end, spec.scheduled = scheduled;
    return spec;
}

TEST(TensorPlan, GlobMapLayerAndSchedules) {
    EXPECT_TRUE(glob_match("output*", "output_norm.weight"));
    EXPECT_FALSE(glob_match("attn", "blk.0.attn_q.weight"));
    EXPECT_TRUE(glob_match("*attn*", "blk.0.attn_q.weight"));
    EXPECT_FALSE(glob_match("a?", "a"));
    EXPECT_TRUE(glob_match("a*b*c", "a--b--c"));
    EXPECT_TRUE(glob_match("*", ""));
    EXPECT_FALSE(glob_match("", "a"));
    EXPECT_FALSE(glob_match("*a*a*a*a*a*a*a*b", std::string(60, 'a')));  // in polynomial time

    struct Map {
        int32_t layer, from, to, expect;
    } maps[] = {{0, 32, 24, 0}, {2, 32, 24, 1}, {3, 32, 24, 2}, {16, 32, 24, 12}, {31, 32, 24, 23},
                {1, 5, 3, 1},   {3, 5, 3, 2},   {9, 8, 8, 7},   {5, 32, 0, 0},    {9, 1, 5, 4}};
    for (const auto& m : maps) {
        EXPECT_EQ(map_layer(m.layer, m.from, m.to), m.expect) << m.layer << " " << m.from;
    }

    const MethodSpec slerp = spec_of(BlendMethod::slerp, 0.2f, 0.8f, true);
    struct Position {
        int32_t layer, first, last;
        float t;
    } positions[] = {{10, 10, 20, 0.2f}, {15, 10, 20, 0.5f}, {20, 10, 20, 0.8f}, {5, 10, 20, 0.2f},
                     {25, 10, 20, 0.8f}, {-1, 0, 31, 0.5f},  {7, 7, 7, 0.5f}};
    for (const auto& p : positions) {
        EXPECT_FLOAT_EQ(resolve_spec(slerp, p.layer, p.first, p.last).t, p.t) << p.layer;
    }
    MethodSpec ties = spec_of(BlendMethod::ties, 0.5f, 0.0f, true);
    ties.weights = {1, 0}, ties.weights_end = {0, 1};
    EXPECT_EQ(resolve_spec(ties, 5, 0, 10).weights, std::vector<float>({0.5f, 0.5f}));
    EXPECT_EQ(resolve_spec(ties, 5, 0, 10).t, 0.25f);
    ties.weights = {}, ties.weights_end = {0.5f, 0.5f};  // the list grows
    EXPECT_EQ(resolve_spec(ties, -1, 0, 10).weights, std::vector<float>({0.25f, 0.25f}));
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
    SourceList sources = testing::open_fixtures(dir, models);

    // Expected type of vec, mat, odd, col, q6k, iq2 for each word of the type table.
    struct Row {
        OutType out;
        int32_t expect[6];
    } rows[] = {
        {{0, false, 0}, {0, 0, 0, 0, 0, 0}},        {{1, false, 1}, {0, 1, 1, 1, 1, 1}},
        {{30, false, 32}, {0, 30, 30, 30, 30, 30}}, {{8, false, 7}, {0, 8, 8, 1, 8, 8}},
        {{14, false, 18}, {0, 14, 1, 1, 14, 14}},   {{13, false, 17}, {0, 13, 1, 1, 13, 13}},
        {{6, false, 8}, {0, 6, 6, 1, 6, 6}},        {{12, false, 15}, {0, 12, 1, 1, 12, 12}},
        {{2, false, 2}, {0, 2, 2, 1, 2, 2}},        {{43, true, -1}, {0, 1, 1, 1, 14, 8}}};
    const char* names[] = {"vec", "mat", "odd", "col", "q6k", "iq2"};
    for (const auto& row : rows) {
        Recipe recipe;
        recipe.out = row.out;
        auto plans = plan_plain(recipe, sources);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(plans[names[i]].out_type, row.expect[i]) << row.out.type << " " << names[i];
        }
    }
}

// Rule precedence, and the search of every source: a donor of the same depth lacks
// one tensor and holds another in a different shape; one of 7 layers is searched at 2L.
TEST(TensorPlan, RulesAndSourceLookup) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F16, 2));  // another type still matches
    std::erase_if(models[1].tensors, [](auto& t) { return t.name == "blk.1.ffn_up.weight"; });
    auto& odd = *std::ranges::find(models[1].tensors, "blk.1.attn_q.weight", &FixtureTensor::name);
    odd.ne = {32, 16, 1, 1};
    models.push_back(llama_fixture(7, 32, GGML_TYPE_F32, 3));
    SourceList sources = testing::open_fixtures(dir, models);
    Recipe recipe;
    recipe.default_spec = spec_of(BlendMethod::slerp, 0.2f, 0.8f, true);
    recipe.tensor_rules = {{"*attn_q*", spec_of(BlendMethod::ties, 0.1f)},
                           {"blk.2.attn_q*", spec_of(BlendMethod::dare, 0.3f)}};
    recipe.layer_rules = {{0, 100, spec_of(BlendMethod::pick, 0.5f)},
                          {2, 3, spec_of(BlendMethod::chaos, 0.2f, 0.8f, true)}};
    auto plans = plan_plain(recipe, sources);

    struct Case {
        int32_t layer;  // -1: outside the blocks
        std::string suffix;
        BlendMethod method;
        float t;
        int32_t found_in[3];  // layer searched per source, -1 where the source drops out
    } cases[] = {{1, "attn_q.weight", BlendMethod::ties, 0.1f, {1, -1, 2}},
                 {2, "attn_q.weight", BlendMethod::dare, 0.3f, {2, 2, 4}},
                 {1, "ffn_up.weight", BlendMethod::pick, 0.5f, {1, -1, 2}},
                 {2, "ffn_up.weight", BlendMethod::chaos, 0.2f, {2, 2, 4}},
                 {3, "ffn_up.weight", BlendMethod::chaos, 0.8f, {3, 3, 6}},
                 {-1, "output.weight", BlendMethod::slerp, 0.5f, {0, 0, 0}}};
    for (const auto& c : cases) {
        auto name = [&](int32_t l) {
            return c.layer < 0 ? c.suffix : "blk." + std::to_string(l) + "." + c.suffix;
        };
        const TensorPlan& plan = plans[name(c.layer)];
        EXPECT_EQ(plan.spec.method, c.method) << plan.name;
        EXPECT_FLOAT_EQ(plan.spec.t, c.t) << plan.name;
        std::vector<int64_t> feeds;
        for (size_t s = 0; s < 3; ++s) {
            const int32_t l = c.found_in[s];
            feeds.push_back(l < 0 ? -1 : sources[s]->tensor_index.at(name(l)));
        }
        EXPECT_EQ(plan.source_tensors, feeds) << plan.name;
        EXPECT_EQ(plan.fallback, c.found_in[1] < 0) << plan.name;
    }
}

}  // namespace
}  // namespace tevrin
