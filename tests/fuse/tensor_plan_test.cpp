#include "fuse/tensor_plan.h"

#include <gtest/gtest.h>

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

// Plans every tensor of the base the way a plain run does.
std::vector<TensorPlan> plan_plain(const Recipe& recipe, const SourceList& sources) {
    std::vector<TensorPlan> plans;
    PlanContext ctx{recipe, sources[0]->n_layer, sources, plans};
    for (const auto& [name, position] : sources[0]->tensor_index) {
        add_tensor_plan(ctx, name, *sources[0], position, name, block_layer(name), -1);
    }
    return plans;
}

const TensorPlan& find_plan(const std::vector<TensorPlan>& plans, const std::string& name) {
    for (const auto& plan : plans) {
        if (plan.name == name) {
            return plan;
        }
    }
    throw std::runtime_error("no plan " + name);
}

MethodSpec spec_of(BlendMethod method, float t, float t_end = 0.0f, bool scheduled = false) {
    MethodSpec spec;
    spec.method = method;
    spec.t = t;
    spec.t_end = t_end;
    spec.scheduled = scheduled;
    return spec;
}

TEST(GlobMatch, Table) {
    struct Case {
        const char* pattern;
        const char* text;
        bool match;
    } cases[] = {
        {"output*", "output.weight", true},
        {"output*", "output_norm.weight", true},
        {"attn", "blk.0.attn_q.weight", false},
        {"*attn*", "blk.0.attn_q.weight", true},
        {"a?", "a", false},
        {"a*b*c", "a--b--c", true},
        {"a*b*c", "abc", true},
        {"a*b*c", "abcd", false},
        {"", "", true},
        {"", "a", false},
        {"*", "", true},
        {"*", "blk.1.x", true},
        {"blk.?.*", "blk.12.x", false},
        {"BLK*", "blk.0", false},
        {"*a*a*a*a*a*a*a*a*b", std::string(60, 'a').c_str(), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(glob_match(c.pattern, c.text), c.match) << c.pattern << " / " << c.text;
    }
}

TEST(MapLayer, Table) {
    struct Case {
        int32_t layer, from, to, expect;
    } cases[] = {
        {0, 32, 24, 0},   {1, 32, 24, 1}, {2, 32, 24, 1},   {3, 32, 24, 2}, {16, 32, 24, 12},
        {31, 32, 24, 23}, {1, 5, 3, 1},   {3, 5, 3, 2},     {7, 8, 8, 7},   {9, 8, 8, 7},
        {5, 32, 1, 0},    {5, 32, 0, 0},  {3, 1, 5, 3},     {9, 1, 5, 4},   {47, 48, 32, 31},
        {31, 32, 0, 0},   {3, 4, 7, 6},   {40, 32, 24, 30},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(map_layer(c.layer, c.from, c.to), c.expect)
            << c.layer << " " << c.from << "->" << c.to;
    }
}

TEST(BlockName, LayerAndSuffix) {
    EXPECT_EQ(block_layer("blk.12.attn_q.weight"), 12);
    EXPECT_EQ(block_layer("blk.x.weight"), 0);
    EXPECT_EQ(block_layer("output.weight"), -1);
    EXPECT_EQ(block_layer("blk.99999999999.x"), INT32_MAX);
    EXPECT_EQ(block_suffix("blk.12.attn_q.weight"), "attn_q.weight");
    EXPECT_EQ(block_suffix("blk.7"), "blk.7");
    EXPECT_EQ(block_suffix("token_embd.weight"), "weight");
}

TEST(ResolveSpec, PositionInRange) {
    MethodSpec slerp = spec_of(BlendMethod::slerp, 0.2f, 0.8f, true);
    struct Case {
        int32_t layer, first, last;
        float t;
    } cases[] = {
        {10, 10, 20, 0.2f}, {15, 10, 20, 0.5f}, {20, 10, 20, 0.8f}, {5, 10, 20, 0.2f},
        {25, 10, 20, 0.8f}, {-1, 0, 31, 0.5f},  {7, 7, 7, 0.5f},    {0, 0, 0, 0.5f},
    };
    for (const auto& c : cases) {
        EXPECT_FLOAT_EQ(resolve_spec(slerp, c.layer, c.first, c.last).t, c.t) << c.layer;
    }
    MethodSpec plain = spec_of(BlendMethod::slerp, 0.2f, 0.8f, false);
    EXPECT_EQ(resolve_spec(plain, 20, 10, 20).t, 0.2f);

    MethodSpec ties = spec_of(BlendMethod::ties, 0.5f, 0.0f, true);
    ties.weights = {1, 0};
    ties.weights_end = {0, 1};
    MethodSpec mid = resolve_spec(ties, 5, 0, 10);
    EXPECT_EQ(mid.t, 0.25f);
    EXPECT_EQ(mid.weights, (std::vector<float>{0.5f, 0.5f}));
    MethodSpec grow = spec_of(BlendMethod::linear, 0.5f, 0.0f, true);
    grow.weights_end = {0.5f, 0.5f};
    EXPECT_EQ(resolve_spec(grow, -1, 0, 9).weights, (std::vector<float>{0.25f, 0.25f}));
    MethodSpec shrink = grow;
    shrink.weights = {1, 0, 0};
    shrink.weights_end = {0, 1};
    EXPECT_EQ(resolve_spec(shrink, -1, 0, 9).weights, (std::vector<float>{0.5f, 0.5f, 0.0f}));
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
    auto& iq = add_tensor(models[0], "iq2", GGML_TYPE_IQ2_XXS, {256, 2, 1, 1});
    iq.raw.assign(2 * ggml_row_size(GGML_TYPE_IQ2_XXS, 256), 0);
    SourceList sources = open_all(dir, models);

    // Expected type for vec, mat, odd, col, q6k, iq2.
    struct Row {
        OutType out;
        int32_t expect[6];
    } rows[] = {
        {{0, false, 0}, {0, 0, 0, 0, 0, 0}},        {{1, false, 1}, {0, 1, 1, 1, 1, 1}},
        {{30, false, 32}, {0, 30, 30, 30, 30, 30}}, {{8, false, 7}, {0, 8, 8, 1, 8, 8}},
        {{14, false, 18}, {0, 14, 1, 1, 14, 14}},   {{13, false, 17}, {0, 13, 1, 1, 13, 13}},
        {{6, false, 8}, {0, 6, 6, 1, 6, 6}},        {{12, false, 15}, {0, 12, 1, 1, 12, 12}},
        {{2, false, 2}, {0, 2, 2, 1, 2, 2}},        {{43, true, -1}, {0, 1, 1, 1, 14, 8}},
    };
    const char* names[] = {"vec", "mat", "odd", "col", "q6k", "iq2"};
    for (const auto& row : rows) {
        Recipe recipe;
        recipe.out = row.out;
        std::vector<TensorPlan> plans = plan_plain(recipe, sources);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(find_plan(plans, names[i]).out_type, row.expect[i])
                << "type " << row.out.type << " tensor " << names[i];
        }
    }
    const std::vector<TensorPlan> plans = plan_plain(Recipe{}, sources);
    EXPECT_EQ(find_plan(plans, "col").n_dims, 2);
    Recipe marker;  // the keep marker without keep never reaches ggml
    marker.out = {43, false, -1};
    EXPECT_THROW(plan_plain(marker, sources), std::invalid_argument);
    EXPECT_EQ(find_plan(plans, "vec").n_dims, 1);
}

TEST(TensorPlan, RulePrecedence) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    SourceList sources = open_all(dir, models);
    Recipe recipe;
    recipe.default_spec = spec_of(BlendMethod::slerp, 0.2f, 0.8f, true);
    recipe.tensor_rules.push_back({"*attn_q*", spec_of(BlendMethod::ties, 0.1f)});
    recipe.tensor_rules.push_back({"blk.2.attn_q*", spec_of(BlendMethod::dare, 0.3f)});
    recipe.layer_rules.push_back({0, 100, spec_of(BlendMethod::pick, 0.5f)});
    recipe.layer_rules.push_back({2, 3, spec_of(BlendMethod::chaos, 0.2f, 0.8f, true)});
    recipe.layer_rules.push_back({0, 0, spec_of(BlendMethod::task, 1.0f)});
    std::vector<TensorPlan> plans = plan_plain(recipe, sources);

    struct Case {
        const char* name;
        BlendMethod method;
        float t;
    } cases[] = {
        {"blk.0.attn_q.weight", BlendMethod::ties, 0.1f},
        {"blk.2.attn_q.weight", BlendMethod::dare, 0.3f},
        {"blk.0.ffn_up.weight", BlendMethod::task, 1.0f},
        {"blk.1.ffn_up.weight", BlendMethod::pick, 0.5f},
        {"blk.2.ffn_up.weight", BlendMethod::chaos, 0.2f},
        {"blk.3.ffn_up.weight", BlendMethod::chaos, 0.8f},
        {"output.weight", BlendMethod::slerp, 0.5f},
    };
    for (const auto& c : cases) {
        const TensorPlan& plan = find_plan(plans, c.name);
        EXPECT_EQ(plan.spec.method, c.method) << c.name;
        EXPECT_FLOAT_EQ(plan.spec.t, c.t) << c.name;
    }

    // Schedules of the default run over the output layer count; a layer beyond
    // the model still meets a layers rule that covers it.
    std::vector<TensorPlan> more;
    PlanContext ctx{recipe, 32, sources, more};
    recipe.layer_rules.clear();
    recipe.tensor_rules.clear();
    const SourceModel& base = *sources[0];
    const int64_t q = base.tensor_index.at("blk.0.attn_q.weight");
    add_tensor_plan(ctx, "blk.0.attn_q.weight", base, q, "blk.0.attn_q.weight", 0, -1);
    add_tensor_plan(ctx, "blk.31.attn_q.weight", base, q, "blk.0.attn_q.weight", 31, -1);
    recipe.layer_rules.push_back({0, 100, spec_of(BlendMethod::pick, 0.5f)});
    add_tensor_plan(ctx, "blk.100.attn_q.weight", base, q, "blk.0.attn_q.weight", 100, -1);
    EXPECT_FLOAT_EQ(more[0].spec.t, 0.2f);
    EXPECT_FLOAT_EQ(more[1].spec.t, 0.8f);
    EXPECT_EQ(more[2].spec.method, BlendMethod::pick);
}

TEST(TensorPlan, SourceLookupAcrossDepthsAndShapes) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F16, 2));  // other type still matches
    std::erase_if(models[1].tensors, [](auto& t) { return t.name == "blk.1.ffn_up.weight"; });
    for (auto& t : models[1].tensors) {
        if (t.name == "blk.2.attn_q.weight") {
            t.ne = {32, 16, 1, 1};
        }
    }
    models.push_back(llama_fixture(7, 32, GGML_TYPE_F32, 3));
    models.push_back(llama_fixture(3, 32, GGML_TYPE_F32, 4));
    models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 5));
    gguf_remove_key(models[4].meta.get(), "llama.block_count");  // n_layer 0
    SourceList sources = open_all(dir, models);
    std::vector<TensorPlan> plans = plan_plain(Recipe{}, sources);
    ASSERT_EQ(plans.size(), sources[0]->tensor_index.size());

    auto pos = [&](size_t s, const std::string& name) { return sources[s]->tensor_index.at(name); };
    // Per source, the layer the tensor is expected in, or -1 where it drops out:
    // donor 1 lacks one tensor and holds another in a different shape, donor 2
    // (7 layers) is searched at 2 * L, donor 3 (3 layers) at round(2 * L / 3),
    // donor 4 (no block count) always at layer 0.
    struct Case {
        int32_t layer;
        const char* suffix;
        int32_t expect[5];
    } cases[] = {
        {0, "ffn_up.weight", {0, 0, 0, 0, 0}},
        {1, "ffn_up.weight", {1, -1, 2, 1, 0}},
        {2, "attn_q.weight", {2, -1, 4, 1, 0}},
        {3, "attn_norm.weight", {3, 3, 6, 2, 0}},
    };
    for (const auto& c : cases) {
        auto name = [&](int32_t l) {
            return std::string("blk.").append(std::to_string(l)) + "." + c.suffix;
        };
        const TensorPlan& plan = find_plan(plans, name(c.layer));
        std::vector<int64_t> feeds;
        for (size_t s = 0; s < 5; ++s) {
            feeds.push_back(c.expect[s] < 0 ? -1 : pos(s, name(c.expect[s])));
        }
        EXPECT_EQ(plan.source_tensors, feeds) << name(c.layer);
        EXPECT_EQ(plan.fallback, c.expect[1] < 0) << name(c.layer);
    }
    for (size_t s = 0; s < 5; ++s) {  // outside the blocks: the same name everywhere
        EXPECT_EQ(find_plan(plans, "output.weight").source_tensors[s], pos(s, "output.weight"));
    }

    // A slice plan reads one source only and never looks at the others.
    std::vector<TensorPlan> one;
    PlanContext ctx{Recipe{}, 4, sources, one};
    add_tensor_plan(ctx, "blk.0.x", *sources[2], pos(2, "blk.6.ffn_up.weight"),
                    "blk.3.ffn_up.weight", 0, 2);
    EXPECT_EQ(one[0].source_tensors,
              (std::vector<int64_t>{-1, -1, pos(2, "blk.6.ffn_up.weight"), -1, -1}));
    EXPECT_FALSE(one[0].fallback);
    EXPECT_EQ(one[0].ne, (std::array<int64_t, 4>{32, 64, 1, 1}));
}

}  // namespace
}  // namespace tevrin
