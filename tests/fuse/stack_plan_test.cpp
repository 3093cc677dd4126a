#include "fuse/stack_plan.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

using testing::add_tensor;
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

std::string error_of(const std::function<void()>& run) {
    try {
        run();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

TEST(StackPlan, RangeCheck) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 2));
    SourceList sources = open_all(dir, models);
    struct Case {
        std::vector<StackSlice> stack;
        std::string error;
    } cases[] = {
        {{{0, 3}, {1, 1}, {0, 0}}, ""},
        {{{0, 3}, {1, 2}, {0, 4}}, "stack layer 2 out of range for source 1"},
        {{{0, 4}}, "stack layer 4 out of range for source 0"},
        {{{1, -1}}, "stack layer -1 out of range for source 1"},
    };
    for (const auto& c : cases) {
        Recipe recipe;
        recipe.stack = c.stack;
        EXPECT_EQ(error_of([&] { check_stack_ranges(recipe, sources); }), c.error);
    }
}

TEST(StackPlan, PerLayerMetadataStopsAStack) {
    struct Case {
        const char* key;
        size_t count;
        bool text;
        bool stops;
    } cases[] = {
        {"llama.attention.head_count", 4, false, true},
        {"llama.attention.head_count", 5, false, false},
        {"llama.attention.head_count", 3, false, false},
        {"llama.layer_names", 4, true, true},
        {"tokenizer.ggml.scores", 4, false, false},
        {"llamax.head_count", 4, false, false},
    };
    for (const auto& c : cases) {
        TempDir dir;
        std::vector<FixtureModel> models;
        models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
        std::vector<int32_t> numbers(c.count, 8);
        std::vector<const char*> words(c.count, "w");
        if (c.text) {
            gguf_set_arr_str(models[0].meta.get(), c.key, words.data(), c.count);
        } else {
            gguf_set_arr_data(models[0].meta.get(), c.key, GGUF_TYPE_INT32, numbers.data(),
                              c.count);
        }
        SourceList sources = open_all(dir, models);
        Recipe recipe;
        recipe.stack = {{0, 1}};
        std::vector<TensorPlan> plans;
        PlanContext ctx{recipe, 1, sources, plans};
        const std::string expect =
            c.stops ? std::string("stack not supported: per-layer metadata ") + c.key : "";
        EXPECT_EQ(error_of([&] { plan_stack(ctx); }), expect) << c.key << " " << c.count;
        EXPECT_EQ(plans.empty(), c.stops);
    }
}

TEST(StackPlan, LayersFromMixedSources) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    add_tensor(models[0], "blk.3.extra.weight", GGML_TYPE_F32, {32, 1, 1, 1});
    add_tensor(models[0], "blk.01.odd.weight", GGML_TYPE_F32, {32, 1, 1, 1});
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F16, 2));  // same depth
    std::erase_if(models[1].tensors, [](auto& t) { return t.name == "blk.2.ffn_up.weight"; });
    for (auto& t : models[1].tensors) {
        if (t.name == "blk.2.attn_q.weight") {
            t.ne = {32, 16, 1, 1};
        }
    }
    add_tensor(models[1], "blk.2.donor_only.weight", GGML_TYPE_F32, {32, 1, 1, 1});
    models.push_back(llama_fixture(8, 32, GGML_TYPE_F32, 3));  // deeper
    models.push_back(llama_fixture(2, 32, GGML_TYPE_F32, 4));  // shallower
    SourceList sources = open_all(dir, models);

    Recipe recipe;
    recipe.default_spec.scheduled = true;
    recipe.default_spec.t = 0.2f;
    recipe.default_spec.t_end = 0.8f;
    recipe.stack = {{0, 1}, {0, 1}, {1, 2}, {2, 7}, {3, 1}, {0, 3}};
    std::vector<TensorPlan> plans;
    PlanContext ctx{recipe, 6, sources, plans};
    plan_stack(ctx);

    struct Row {
        std::string name;
        int32_t source;      // -1: a shared tensor
        std::string origin;  // the tensor's name in that source
        bool fallback;
    };
    std::vector<Row> expect = {{"token_embd.weight", -1, "", false},
                               {"output_norm.weight", -1, "", false},
                               {"output.weight", -1, "", false}};
    const char* suffixes[] = {"attn_norm.weight", "attn_q.weight", "ffn_up.weight", "extra.weight"};
    auto layer = [&](int out, std::vector<Row> parts) {
        for (size_t k = 0; k < parts.size(); ++k) {
            parts[k].name = std::string("blk.").append(std::to_string(out)) + "." + suffixes[k];
            expect.push_back(parts[k]);
        }
    };
    layer(0, {{"", 0, "blk.1.attn_norm.weight", false},
              {"", 0, "blk.1.attn_q.weight", false},
              {"", 0, "blk.1.ffn_up.weight", false}});
    layer(1, {{"", 0, "blk.1.attn_norm.weight", false},
              {"", 0, "blk.1.attn_q.weight", false},
              {"", 0, "blk.1.ffn_up.weight", false}});
    layer(2, {{"", 1, "blk.2.attn_norm.weight", false},
              {"", 0, "blk.2.attn_q.weight", true},
              {"", 0, "blk.2.ffn_up.weight", true}});
    layer(3, {{"", 2, "blk.7.attn_norm.weight", false},
              {"", 2, "blk.7.attn_q.weight", false},
              {"", 2, "blk.7.ffn_up.weight", false},
              {"", 0, "blk.3.extra.weight", true}});
    layer(4, {{"", 3, "blk.1.attn_norm.weight", false},
              {"", 3, "blk.1.attn_q.weight", false},
              {"", 3, "blk.1.ffn_up.weight", false},
              {"", 0, "blk.3.extra.weight", true}});
    layer(5, {{"", 0, "blk.3.attn_norm.weight", false},
              {"", 0, "blk.3.attn_q.weight", false},
              {"", 0, "blk.3.ffn_up.weight", false},
              {"", 0, "blk.3.extra.weight", false}});

    ASSERT_EQ(plans.size(), expect.size());
    for (size_t i = 0; i < plans.size(); ++i) {
        const TensorPlan& plan = plans[i];
        const Row& row = expect[i];
        EXPECT_EQ(plan.name, row.name) << i;
        EXPECT_EQ(plan.only_source, row.source) << row.name;
        EXPECT_EQ(plan.fallback, row.fallback) << row.name;
        ASSERT_EQ(plan.source_tensors.size(), 4u);
        if (row.source < 0) {
            EXPECT_FLOAT_EQ(plan.spec.t, 0.5f);
            EXPECT_EQ(plan.source_tensors[0], sources[0]->tensor_index.at(row.name));
            continue;
        }
        std::vector<int64_t> feeds(4, -1);
        feeds[size_t(row.source)] = sources[size_t(row.source)]->tensor_index.at(row.origin);
        EXPECT_EQ(plan.source_tensors, feeds) << row.name;
    }
    // The methods' schedules run over the output layers.
    EXPECT_FLOAT_EQ(plans[3].spec.t, 0.2f);
    EXPECT_FLOAT_EQ(plans.back().spec.t, 0.8f);
}

}  // namespace
}  // namespace tevrin
