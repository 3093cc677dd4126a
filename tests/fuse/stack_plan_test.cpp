#include "fuse/stack_plan.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/gguf_builder.h"

namespace tevrin {

// Defined in tensor_plan_test.cpp.
namespace {

using namespace tevrin::testing;

// "<output name> <source>:<source layer>" for a block tensor taken from the tensor
// of the same role, with "!" for a fallback; shared tensors show their name only.
std::string describe(const TensorPlan& plan, const SourceList& sources) {
    if (plan.only_source < 0) {
        return plan.name;
    }
    const auto s = size_t(plan.only_source);
    const std::string from = gguf_get_tensor_name(sources[s]->gguf, plan.source_tensors[s]);
    const bool same_role = block_suffix(from) == block_suffix(plan.name);
    return plan.name + " " + std::to_string(s) + ":" +
           (same_role ? std::to_string(block_layer(from)) : from) + (plan.fallback ? "!" : "");
}

void add_array(FixtureModel& model, const char* key, size_t count) {
    const std::vector<int32_t> values(count, 8);
    gguf_set_arr_data(model.meta.get(), key, GGUF_TYPE_INT32, values.data(), count);
}

// A stack that starts with a deeper donor, repeats a base layer, and takes a layer
// of a donor of the same depth that lacks one tensor and holds one in another shape.
// Arrays of one element more or less than the depth, or outside the family's keys,
// don't stop it; an array of exactly one element per layer does.
TEST(StackPlan, LayersFromMixedSources) {
    TempDir dir;
    std::vector<FixtureModel> models;
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F32, 1));
    add_tensor(models[0], "blk.3.extra", GGML_TYPE_F32, {32, 1, 1, 1});
    add_tensor(models[0], "blk.01.odd", GGML_TYPE_F32, {32, 1, 1, 1});  // in no template
    add_array(models[0], "llama.attention.head_count", 3);
    add_array(models[0], "llama.attention.head_count_kv", 5);
    add_array(models[0], "tokenizer.ggml.scores", 4);
    models.push_back(llama_fixture(4, 32, GGML_TYPE_F16, 2));
    std::erase_if(models[1].tensors, [](auto& t) { return t.name == "blk.2.ffn_up.weight"; });
    auto& odd = *std::ranges::find(models[1].tensors, "blk.2.attn_q.weight", &FixtureTensor::name);
    odd.ne = {32, 16, 1, 1};
    models.push_back(llama_fixture(8, 32, GGML_TYPE_F32, 3));
    SourceList sources = testing::open_fixtures(dir, models);
    Recipe recipe;
    recipe.default_spec.scheduled = true;
    recipe.default_spec.t = 0.2f, recipe.default_spec.t_end = 0.8f;
    recipe.stack = {{2, 7}, {0, 1}, {0, 1}, {1, 2}};
    std::vector<TensorPlan> plans;
    PlanContext ctx{recipe, 4, sources, plans};
    plan_stack(ctx);

    std::vector<std::string> seen;
    for (const auto& plan : plans) {
        seen.push_back(describe(plan, sources));
    }
    const std::vector<std::string> expect = {
        "token_embd.weight",          "output_norm.weight",         "output.weight",
        "blk.0.attn_norm.weight 2:7", "blk.0.attn_q.weight 2:7",    "blk.0.ffn_up.weight 2:7",
        "blk.0.extra 0:3!",           "blk.1.attn_norm.weight 0:1", "blk.1.attn_q.weight 0:1",
        "blk.1.ffn_up.weight 0:1",    "blk.2.attn_norm.weight 0:1", "blk.2.attn_q.weight 0:1",
        "blk.2.ffn_up.weight 0:1",    "blk.3.attn_norm.weight 1:2", "blk.3.attn_q.weight 0:2!",
        "blk.3.ffn_up.weight 0:2!"};
    EXPECT_EQ(seen, expect);
    EXPECT_FLOAT_EQ(plans[3].spec.t, 0.2f);  // schedules run over the output layers
    EXPECT_FLOAT_EQ(plans.back().spec.t, 0.8f);

    TempDir again;
    add_array(models[0], "llama.attention.sliding_window", 4);
    SourceList per_layer = testing::open_fixtures(again, models);
    PlanContext stopped{recipe, 4, per_layer, plans};
    try {
        plan_stack(stopped);
        ADD_FAILURE() << "per-layer metadata did not stop the stack";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(),
                     "stack not supported: per-layer metadata llama.attention.sliding_window");
    }
}

}  // namespace
}  // namespace tevrin
