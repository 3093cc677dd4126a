// Per-tensor types of the named mixes on a few model shapes (dense llama with
// equal head counts, a qwen2-like width that no 256-block fits with grouped
// key/value heads and tied embeddings, and an eight-expert model), the visit order
// that feeds the running counters, the fallback chain, and which tensors a mix
// leaves alone.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <ggml.h>

#include "fuse/quant_mix.h"

namespace tevrin {
namespace {

struct Shape {
    ModelFacts facts;
    int64_t width = 256;
    int64_t kv_width = 256;
    int64_t ffn = 768;
    bool tied = false;
};

// The tensors of a model of `shape`, in the order a converter writes them.
std::vector<MixTensor> tensors_of(const Shape& s) {
    const int64_t experts = s.facts.n_expert;
    std::vector<MixTensor> list = {{"token_embd.weight", 2, {s.width, 1000, 1, 1}, 1}};
    for (int32_t l = 0; l < s.facts.n_layer; ++l) {
        const std::string p = "blk." + std::to_string(l) + ".";
        list.push_back({p + "attn_norm.weight", 1, {s.width, 1, 1, 1}, 0});
        list.push_back({p + "attn_q.weight", 2, {s.width, s.width, 1, 1}, 1});
        list.push_back({p + "attn_k.weight", 2, {s.width, s.kv_width, 1, 1}, 1});
        list.push_back({p + "attn_v.weight", 2, {s.width, s.kv_width, 1, 1}, 1});
        list.push_back({p + "attn_output.weight", 2, {s.width, s.width, 1, 1}, 1});
        list.push_back({p + "ffn_norm.weight", 1, {s.width, 1, 1, 1}, 0});
        if (experts > 1) {
            list.push_back({p + "ffn_gate_inp.weight", 2, {s.width, experts, 1, 1}, 0});
            list.push_back({p + "ffn_gate_exps.weight", 3, {s.width, s.ffn, experts, 1}, 1});
            list.push_back({p + "ffn_up_exps.weight", 3, {s.width, s.ffn, experts, 1}, 1});
            list.push_back({p + "ffn_down_exps.weight", 3, {s.ffn, s.width, experts, 1}, 1});
        } else {
            list.push_back({p + "ffn_gate.weight", 2, {s.width, s.ffn, 1, 1}, 1});
            list.push_back({p + "ffn_up.weight", 2, {s.width, s.ffn, 1, 1}, 1});
            list.push_back({p + "ffn_down.weight", 2, {s.ffn, s.width, 1, 1}, 1});
        }
    }
    list.push_back({"output_norm.weight", 1, {s.width, 1, 1, 1}, 0});
    if (!s.tied) {
        list.push_back({"output.weight", 2, {s.width, 1000, 1, 1}, 1});
    }
    return list;
}

struct MixCase {
    const char* what;
    Shape shape;
    QuantMix mix;
    const char* matrices;  // type of every quantized tensor not listed below
    // "name=type" or "<role>@<layers>=type", layers as "0,3,6"
    std::vector<std::string> exceptions;
};

// Expands the exceptions of a case into name -> type name.
std::map<std::string, std::string> expected_exceptions(const MixCase& c) {
    std::map<std::string, std::string> out;
    for (const std::string& e : c.exceptions) {
        const size_t eq = e.find('='), at = e.find('@');
        const std::string type = e.substr(eq + 1);
        if (at == std::string::npos) {
            out[e.substr(0, eq)] = type;
            continue;
        }
        const std::string role = e.substr(0, at);
        std::string layers = e.substr(at + 1, eq - at - 1) + ",";
        for (size_t pos = 0, comma; (comma = layers.find(',', pos)) != std::string::npos;
             pos = comma + 1) {
            out["blk." + layers.substr(pos, comma - pos) + "." + role + ".weight"] = type;
        }
    }
    return out;
}

Shape llama12() {
    Shape s;
    s.facts = {"llama", 12, 4, 4, 0};
    return s;
}

// Qwen2-0.5B geometry: width 896, 14 heads over 2 key/value heads, ffn 4864.
Shape qwen24() {
    Shape s;
    s.facts = {"qwen2", 24, 14, 2, 0};
    s.width = 896;
    s.kv_width = 128;
    s.ffn = 4864;
    s.tied = true;
    return s;
}

Shape falcon16() {
    Shape s;
    s.facts = {"falcon", 16, 4, 4, 0};
    return s;
}

Shape experts8() {
    Shape s;
    s.facts = {"llama", 4, 4, 4, 8};
    s.ffn = 512;
    return s;
}

TEST(QuantMix, TypesPerShape) {
    // Layers of 12 with more bits: below 12/8, from 7*12/8, and every third between.
    const std::string more12 = "0,3,6,9,10,11";
    // Of 24: below 3, from 21, and 5, 8, ..., 20.
    const std::string more24 = "0,1,2,5,8,11,14,17,20,21,22,23";
    const std::string rest24 = "3,4,6,7,9,10,12,13,15,16,18,19";
    // clang-format off
    const std::vector<MixCase> cases = {
        {"llama q4_k_m", llama12(), QuantMix::q4_k_m, "q4_K",
         {"output.weight=q6_K", "attn_v@" + more12 + "=q6_K", "ffn_down@" + more12 + "=q6_K"}},
        {"llama q5_k_m", llama12(), QuantMix::q5_k_m, "q5_K",
         {"output.weight=q6_K", "attn_v@" + more12 + "=q6_K", "ffn_down@" + more12 + "=q6_K"}},
        {"llama q4_k_s", llama12(), QuantMix::q4_k_s, "q4_K",
         {"output.weight=q6_K", "attn_v@0,1,2,3=q5_K", "ffn_down@0=q5_K"}},
        {"llama q5_k_s", llama12(), QuantMix::q5_k_s, "q5_K", {"output.weight=q6_K"}},
        {"llama q3_k_s", llama12(), QuantMix::q3_k_s, "q3_K", {"output.weight=q6_K"}},
        {"llama q3_k_m", llama12(), QuantMix::q3_k_m, "q3_K",
         {"output.weight=q6_K", "attn_v@0,1=q5_K", "attn_v@2,3,4,5,6,7,8,9,10,11=q4_K",
          "attn_output@0,1,2,3,4,5,6,7,8,9,10,11=q4_K", "ffn_down@0,1,2,3,4,5,6,7,8,9,10,11=q4_K"}},
        {"llama q3_k_l", llama12(), QuantMix::q3_k_l, "q3_K",
         {"output.weight=q6_K", "attn_v@0,1,2,3,4,5,6,7,8,9,10,11=q5_K",
          "attn_output@0,1,2,3,4,5,6,7,8,9,10,11=q5_K", "ffn_down@0,1,2,3,4,5,6,7,8,9,10,11=q5_K"}},
        {"llama q2_k_s", llama12(), QuantMix::q2_k_s, "q2_K",
         {"output.weight=q6_K", "ffn_down@0=q4_K"}},
        // Rows of 896 fit no 256-block: q4_K falls back to q5_0, q5_K to q5_1, q6_K to
        // q8_0, q3_K to q4_0; the tied embedding is the head and goes to q8_0.
        {"qwen2 q4_k_m", qwen24(), QuantMix::q4_k_m, "q5_0",
         {"token_embd.weight=q8_0", "attn_v@" + more24 + "=q8_0",
          "ffn_down@" + more24 + "=q6_K", "ffn_down@" + rest24 + "=q4_K"}},
        {"qwen2 q3_k_m", qwen24(), QuantMix::q3_k_m, "q4_0",
         {"token_embd.weight=q8_0", "attn_v@0,1=q5_1", "attn_v@2," + rest24 + ",5,8,11,14,17,20,21,22,23=q5_0",
          "attn_output@" + more24 + "," + rest24 + "=q5_0",
          "ffn_down@0=q5_K", "ffn_down@1,2," + rest24 + ",5,8,11,14,17,20,21,22,23=q4_K"}},
        {"qwen2 q2_k_s", qwen24(), QuantMix::q2_k_s, "q4_0",
         {"token_embd.weight=q8_0", "attn_v@" + more24 + "," + rest24 + "=q5_0",
          "ffn_down@0,1,2=q4_K", "ffn_down@3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23=q2_K"}},
        // Falcon: the head in q8_0, ffn_down graded in three steps.
        {"falcon q4_k_m", falcon16(), QuantMix::q4_k_m, "q4_K",
         {"output.weight=q8_0", "attn_v@0,1,4,7,10,13,14,15=q6_K", "ffn_down@0=q6_K",
          "ffn_down@1,4,7,10,13,14,15=q5_K"}},
        {"falcon q3_k_l", falcon16(), QuantMix::q3_k_l, "q3_K",
         {"output.weight=q8_0", "attn_v@0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15=q5_K",
          "attn_output@0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15=q4_K",
          "ffn_down@0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15=q4_K"}},
        // Eight experts: k and v in q8_0, attention output raised, routers untouched,
        // ffn_down layers read from the names (2 and 3 of 4 get more bits).
        {"experts q4_k_m", experts8(), QuantMix::q4_k_m, "q4_K",
         {"output.weight=q6_K", "attn_v@0,1,2,3=q8_0", "attn_k@0,1,2,3=q8_0",
          "attn_output@0,1,2,3=q5_K", "ffn_gate_inp@0,1,2,3=f32", "ffn_down_exps@2,3=q6_K"}},
        {"experts q5_k_s", experts8(), QuantMix::q5_k_s, "q5_K",
         {"output.weight=q6_K", "attn_v@0,1,2,3=q8_0", "attn_k@0,1,2,3=q8_0",
          "ffn_gate_inp@0,1,2,3=f32"}},
    };
    // clang-format on
    for (const MixCase& c : cases) {
        const std::vector<MixTensor> tensors = tensors_of(c.shape);
        const std::vector<int32_t> types = mix_types(c.mix, tensors, c.shape.facts);
        const auto exceptions = expected_exceptions(c);
        for (size_t i = 0; i < tensors.size(); ++i) {
            const auto found = exceptions.find(tensors[i].name);
            const std::string expected = found != exceptions.end() ? found->second
                                         : tensors[i].n_dims == 1  ? "f32"
                                                                   : c.matrices;
            EXPECT_EQ(ggml_type_name(ggml_type(types[i])), expected)
                << c.what << ": " << tensors[i].name;
        }
    }
}

// Block 10 comes after block 9, not after block 1: a name-ordered visit would give
// blk.10 the second attn_v count and so fewer bits.
TEST(QuantMix, VisitOrderIsByLayerNumberThenName) {
    const std::vector<MixTensor> tensors = tensors_of(llama12());
    std::vector<std::string> visited;
    for (size_t i : visit_order(tensors)) {
        visited.push_back(tensors[i].name);
    }
    EXPECT_EQ(visited[0], "output.weight");
    EXPECT_EQ(visited[1], "output_norm.weight");
    EXPECT_EQ(visited[2], "token_embd.weight");
    EXPECT_EQ(visited[3], "blk.0.attn_k.weight");
    EXPECT_EQ(visited.back(), "blk.11.ffn_up.weight");
    const MixCounters counters = initial_counters(tensors);
    EXPECT_EQ(counters.n_attention_wv, 12);
    EXPECT_FALSE(counters.tied_embeddings);
}

// 80-layer llama with grouped heads (and qwen2 at 80) store the shared v projection
// with more bits; with as many key/value heads as heads (65B) they do not.
TEST(QuantMix, SeventyBillionShapesRaiseTheVProjection) {
    for (const auto& [facts, expected] :
         std::vector<std::pair<ModelFacts, std::string>>{{{"llama", 80, 64, 8, 0}, "q5_K"},
                                                         {{"qwen2", 80, 64, 64, 0}, "q5_K"},
                                                         {{"llama", 80, 64, 64, 0}, "q4_K"},
                                                         {{"llama", 79, 64, 8, 0}, "q4_K"}}) {
        Shape s;
        s.facts = facts;
        const std::vector<MixTensor> tensors = tensors_of(s);
        const std::vector<int32_t> types = mix_types(QuantMix::q4_k_m, tensors, facts);
        for (size_t i = 0; i < tensors.size(); ++i) {
            if (tensors[i].name == "blk.13.attn_v.weight") {  // not a layer with more bits
                EXPECT_EQ(ggml_type_name(ggml_type(types[i])), expected) << facts.arch;
            }
        }
    }
}

TEST(QuantMix, FallbackChainAndUntouchedTensors) {
    // clang-format off
    const std::vector<std::tuple<ggml_type, int64_t, ggml_type>> fallbacks = {
        {GGML_TYPE_Q4_K, 4096, GGML_TYPE_Q4_K}, {GGML_TYPE_Q4_K, 896, GGML_TYPE_Q5_0},
        {GGML_TYPE_Q5_K, 896, GGML_TYPE_Q5_1},  {GGML_TYPE_Q6_K, 896, GGML_TYPE_Q8_0},
        {GGML_TYPE_Q3_K, 320, GGML_TYPE_Q4_0},  {GGML_TYPE_Q2_K, 320, GGML_TYPE_Q4_0},
        {GGML_TYPE_IQ2_XS, 96, GGML_TYPE_IQ4_NL}, {GGML_TYPE_IQ4_XS, 96, GGML_TYPE_IQ4_NL},
        {GGML_TYPE_Q4_K, 100, GGML_TYPE_F16},   {GGML_TYPE_Q8_0, 100, GGML_TYPE_F16},
    };
    // clang-format on
    for (const auto& [type, row, expected] : fallbacks) {
        EXPECT_EQ(mix_fallback_type(type, row), expected) << ggml_type_name(type) << " " << row;
    }
    const std::vector<std::pair<std::string, bool>> names = {
        {"blk.0.attn_q.weight", true},        {"blk.0.attn_q.bias", false},
        {"blk.0.ffn_gate_inp.weight", false}, {"blk.0.attn_q_norm.weight", false},
        {"position_embd.weight", false},      {"blk.0.ssm_conv1d.weight", false},
        {"v.patch_embd.weight", false},       {"token_embd.weight", true},
    };
    for (const auto& [name, quantized] : names) {
        EXPECT_EQ(mix_quantizes(name, 2), quantized) << name;
    }
    EXPECT_FALSE(mix_quantizes("blk.0.attn_q.weight", 1));
    // A router that stays in its own type, whatever the mix.
    ModelFacts facts{"llama", 1, 4, 4, 0};
    MixCounters counters;
    EXPECT_EQ(mix_tensor_type(QuantMix::q4_k_m, {"blk.0.ffn_gate_inp.weight", 2, {64, 8, 1, 1}, 30},
                              facts, counters),
              30);
}

TEST(QuantMix, ExpertLayersMustBeReadable) {
    const ModelFacts facts{"llama", 2, 4, 4, 8};
    for (const auto& [name, message] : std::vector<std::pair<std::string, std::string>>{
             {"ffn_down_exps.weight", "cannot find the layer of tensor ffn_down_exps.weight"},
             {"blk.2.ffn_up_exps.weight",
              "layer 2 of tensor blk.2.ffn_up_exps.weight is outside the model's 2 layers"}}) {
        MixCounters counters;
        try {
            mix_tensor_type(QuantMix::q4_k_m, {name, 3, {256, 256, 8, 1}, 1}, facts, counters);
            ADD_FAILURE() << name;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

TEST(QuantMix, WhichTensorsNeedAMatrix) {
    EXPECT_TRUE(mix_needs_matrix(QuantMix::q2_k_s, "blk.0.attn_q.weight", GGML_TYPE_Q2_K));
    EXPECT_FALSE(mix_needs_matrix(QuantMix::q2_k_s, "token_embd.weight", GGML_TYPE_Q2_K));
    EXPECT_FALSE(mix_needs_matrix(QuantMix::q3_k_s, "blk.0.attn_q.weight", GGML_TYPE_Q2_K));
    EXPECT_TRUE(mix_needs_matrix(QuantMix::none, "blk.0.attn_q.weight", GGML_TYPE_IQ2_XS));
    EXPECT_FALSE(mix_needs_matrix(QuantMix::none, "output.weight", GGML_TYPE_IQ1_S));
    EXPECT_FALSE(mix_needs_matrix(QuantMix::none, "blk.0.attn_q.weight", GGML_TYPE_IQ3_S));
}

}  // namespace
}  // namespace tevrin
