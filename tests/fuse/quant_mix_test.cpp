// Per-tensor types of the named mixes on a few model shapes (dense llama with
// equal head counts, a qwen2-like width that no 256-block fits with grouped
// key/value heads and tied embeddings, and an eight-expert model), the visit order
// that feeds the running counters, the fallback chain and which tensors a mix
// leaves alone; then quantized runs end to end, where type lines settle the types
// in the file and importance entries reach the quantizer. The failures of such
// runs are among the whole-run failures of fuse_test.
#include <gtest/gtest.h>

#include <ggml.h>

#include <sstream>

#include "fuse/quant_mix.h"
#include "tests/fuse/fuse_fixtures.h"
#include "tests/support/imatrix_files.h"

namespace tevrin::testing {
namespace {

struct Shape {
    ModelFacts facts;
    int64_t width = 256, kv_width = 256, ffn = 768;
    bool tied = false;
};
const Shape kLlama12{{"llama", 12, 4, 4, 0}};
// Qwen2-0.5B geometry: width 896, 14 heads over 2 key/value heads, ffn 4864.
const Shape kQwen24{{"qwen2", 24, 14, 2, 0}, 896, 128, 4864, true};
const Shape kFalcon16{{"falcon", 16, 4, 4, 0}};
const Shape kExperts8{{"llama", 4, 4, 4, 8}, 256, 256, 512};

// The tensors of a model of `shape`, in the order a converter writes them.
std::vector<MixTensor> tensors_of(const Shape& s) {
    const int64_t w = s.width, kv = s.kv_width, f = s.ffn, e = s.facts.n_expert;
    const int64_t ne2 = e > 1 ? e : 1;  // experts
    const std::string ffn = e > 1 ? "_exps.weight" : ".weight";
    std::vector<MixTensor> list = {{"token_embd.weight", 2, {w, 1000, 1, 1}, 1}};
    for (int32_t l = 0; l < s.facts.n_layer; ++l) {
        const std::string p = "blk." + std::to_string(l) + ".";
        list.push_back({p + "attn_norm.weight", 1, {w, 1, 1, 1}, 0});
        list.push_back({p + "attn_q.weight", 2, {w, w, 1, 1}, 1});
        list.push_back({p + "attn_k.weight", 2, {w, kv, 1, 1}, 1});
        list.push_back({p + "attn_v.weight", 2, {w, kv, 1, 1}, 1});
        list.push_back({p + "attn_output.weight", 2, {w, w, 1, 1}, 1});
        list.push_back({p + "ffn_norm.weight", 1, {w, 1, 1, 1}, 0});
        if (e > 1) {
            list.push_back({p + "ffn_gate_inp.weight", 2, {w, e, 1, 1}, 0});
        }
        list.push_back({p + "ffn_gate" + ffn, e > 1 ? 3 : 2, {w, f, ne2, 1}, 1});
        list.push_back({p + "ffn_up" + ffn, e > 1 ? 3 : 2, {w, f, ne2, 1}, 1});
        list.push_back({p + "ffn_down" + ffn, e > 1 ? 3 : 2, {f, w, ne2, 1}, 1});
    }
    list.push_back({"output_norm.weight", 1, {w, 1, 1, 1}, 0});
    if (!s.tied) {
        list.push_back({"output.weight", 2, {w, 1000, 1, 1}, 1});
    }
    return list;
}

// Exceptions "name=type" or "<role>@<layers>=type" (layers as "0,3,6-8"),
// separated by spaces, expanded into name -> type name.
std::map<std::string, std::string> expand(const std::string& exceptions) {
    std::map<std::string, std::string> out;
    std::istringstream all(exceptions);
    for (std::string e; all >> e;) {
        const size_t eq = e.find('='), at = e.find('@');
        if (at == std::string::npos) {
            out[e.substr(0, eq)] = e.substr(eq + 1);
            continue;
        }
        std::istringstream layers(e.substr(at + 1, eq - at - 1));
        for (std::string item; std::getline(layers, item, ',');) {
            const size_t dash = item.find('-');
            const int last = std::stoi(dash == std::string::npos ? item : item.substr(dash + 1));
            for (int l = std::stoi(item); l <= last; ++l) {
                out["blk." + std::to_string(l) + "." + e.substr(0, at) + ".weight"] =
                    e.substr(eq + 1);
            }
        }
    }
    return out;
}

// Of 12 layers, those with more bits are below 12/8, from 7*12/8 and every third
// between (0,3,6,9-11); of 24: 0-2,5,8,11,14,17,20-23. The counters run in layer
// order: visited by name, blk.10 would follow blk.1 and get fewer bits.
TEST(QuantMix, TypesPerShape) {
    const struct {
        Shape shape;
        QuantMix mix;
        const char* matrices;  // type of every quantized tensor not listed
        const char* exceptions;
    } cases[] = {
        {kLlama12, QuantMix::q4_k_m, "q4_K",
         "output.weight=q6_K attn_v@0,3,6,9-11=q6_K ffn_down@0,3,6,9-11=q6_K"},
        {kLlama12, QuantMix::q5_k_m, "q5_K",
         "output.weight=q6_K attn_v@0,3,6,9-11=q6_K ffn_down@0,3,6,9-11=q6_K"},
        {kLlama12, QuantMix::q4_k_s, "q4_K", "output.weight=q6_K attn_v@0-3=q5_K ffn_down@0=q5_K"},
        {kLlama12, QuantMix::q5_k_s, "q5_K", "output.weight=q6_K"},
        {kLlama12, QuantMix::q3_k_s, "q3_K", "output.weight=q6_K"},
        {kLlama12, QuantMix::q3_k_m, "q3_K",
         "output.weight=q6_K attn_v@0,1=q5_K attn_v@2-11=q4_K attn_output@0-11=q4_K "
         "ffn_down@0-11=q4_K"},
        {kLlama12, QuantMix::q3_k_l, "q3_K",
         "output.weight=q6_K attn_v@0-11=q5_K attn_output@0-11=q5_K ffn_down@0-11=q5_K"},
        {kLlama12, QuantMix::q2_k_s, "q2_K", "output.weight=q6_K ffn_down@0=q4_K"},
        // Rows of 896 fit no 256-block: q4_K falls back to q5_0, q5_K to q5_1, q6_K to
        // q8_0, q3_K to q4_0; the tied embedding is the head and goes to q8_0.
        {kQwen24, QuantMix::q4_k_m, "q5_0",
         "token_embd.weight=q8_0 attn_v@0-2,5,8,11,14,17,20-23=q8_0 "
         "ffn_down@0-2,5,8,11,14,17,20-23=q6_K ffn_down@3,4,6,7,9,10,12,13,15,16,18,19=q4_K"},
        {kQwen24, QuantMix::q3_k_m, "q4_0",
         "token_embd.weight=q8_0 attn_v@0,1=q5_1 attn_v@2-23=q5_0 attn_output@0-23=q5_0 "
         "ffn_down@0=q5_K ffn_down@1-23=q4_K"},
        {kQwen24, QuantMix::q2_k_s, "q4_0",
         "token_embd.weight=q8_0 attn_v@0-23=q5_0 ffn_down@0-2=q4_K ffn_down@3-23=q2_K"},
        // Falcon: the head in q8_0, ffn_down graded in three steps.
        {kFalcon16, QuantMix::q4_k_m, "q4_K",
         "output.weight=q8_0 attn_v@0,1,4,7,10,13-15=q6_K ffn_down@0=q6_K "
         "ffn_down@1,4,7,10,13-15=q5_K"},
        {kFalcon16, QuantMix::q3_k_l, "q3_K",
         "output.weight=q8_0 attn_v@0-15=q5_K attn_output@0-15=q4_K ffn_down@0-15=q4_K"},
        // Eight experts: k and v in q8_0, attention output raised, routers untouched,
        // ffn_down layers read from the names (2 and 3 of 4 get more bits).
        {kExperts8, QuantMix::q4_k_m, "q4_K",
         "output.weight=q6_K attn_v@0-3=q8_0 attn_k@0-3=q8_0 attn_output@0-3=q5_K "
         "ffn_gate_inp@0-3=f32 ffn_down_exps@2,3=q6_K"},
        {kExperts8, QuantMix::q5_k_s, "q5_K",
         "output.weight=q6_K attn_v@0-3=q8_0 attn_k@0-3=q8_0 ffn_gate_inp@0-3=f32"},
    };
    for (const auto& c : cases) {
        const std::vector<MixTensor> tensors = tensors_of(c.shape);
        const std::vector<int32_t> types = mix_types(c.mix, tensors, c.shape.facts);
        const auto exceptions = expand(c.exceptions);
        for (size_t i = 0; i < tensors.size(); ++i) {
            const auto found = exceptions.find(tensors[i].name);
            const std::string expected = found != exceptions.end() ? found->second
                                         : tensors[i].n_dims == 1  ? "f32"
                                                                   : c.matrices;
            EXPECT_EQ(ggml_type_name(ggml_type(types[i])), expected)
                << c.shape.facts.arch << " mix " << int(c.mix) << ": " << tensors[i].name;
        }
    }
    // 80-layer llama with grouped heads (and qwen2 at 80) store the shared v
    // projection with more bits; with as many key/value heads as heads (65B) not.
    const std::pair<ModelFacts, ggml_type> seventy_b[] = {
        {{"llama", 80, 64, 8, 0}, GGML_TYPE_Q5_K},
        {{"qwen2", 80, 64, 64, 0}, GGML_TYPE_Q5_K},
        {{"llama", 80, 64, 64, 0}, GGML_TYPE_Q4_K},
        {{"llama", 79, 64, 8, 0}, GGML_TYPE_Q4_K}};
    for (const auto& [facts, expected] : seventy_b) {
        const std::vector<MixTensor> tensors = tensors_of({facts});
        const size_t v13 = 1 + 13 * 9 + 3;  // blk.13.attn_v, not a layer with more bits
        EXPECT_EQ(mix_types(QuantMix::q4_k_m, tensors, facts)[v13], expected) << facts.arch;
    }
}

TEST(QuantMix, FallbackChainAndUntouchedTensors) {
    const std::tuple<ggml_type, int64_t, ggml_type> fallbacks[] = {
        {GGML_TYPE_Q4_K, 4096, GGML_TYPE_Q4_K},   {GGML_TYPE_Q4_K, 896, GGML_TYPE_Q5_0},
        {GGML_TYPE_Q5_K, 896, GGML_TYPE_Q5_1},    {GGML_TYPE_Q6_K, 896, GGML_TYPE_Q8_0},
        {GGML_TYPE_Q3_K, 320, GGML_TYPE_Q4_0},    {GGML_TYPE_Q2_K, 320, GGML_TYPE_Q4_0},
        {GGML_TYPE_IQ2_XS, 96, GGML_TYPE_IQ4_NL}, {GGML_TYPE_IQ4_XS, 96, GGML_TYPE_IQ4_NL},
        {GGML_TYPE_Q4_K, 100, GGML_TYPE_F16},     {GGML_TYPE_Q8_0, 100, GGML_TYPE_F16},
    };
    for (const auto& [type, row, expected] : fallbacks) {
        EXPECT_EQ(mix_fallback_type(type, row), expected) << ggml_type_name(type) << " " << row;
    }
    const std::pair<std::string, bool> names[] = {
        {"blk.0.attn_q.weight", true},        {"blk.0.attn_q.bias", false},
        {"blk.0.ffn_gate_inp.weight", false}, {"blk.0.attn_q_norm.weight", false},
        {"position_embd.weight", false},      {"blk.0.ssm_conv1d.weight", false},
        {"v.patch_embd.weight", false},       {"token_embd.weight", true},
    };
    for (const auto& [name, quantized] : names) {
        EXPECT_EQ(mix_quantizes(name, 2), quantized) << name;
    }
    EXPECT_FALSE(mix_quantizes("blk.0.attn_q.weight", 1));
    // A router stays in its own type, whatever the mix.
    MixCounters counters;
    EXPECT_EQ(mix_tensor_type(QuantMix::q4_k_m, {"blk.0.ffn_gate_inp.weight", 2, {64, 8, 1, 1}, 30},
                              {"llama", 1, 4, 4, 0}, counters),
              30);
    // Expert tensors need a readable layer inside the model.
    const ModelFacts experts{"llama", 2, 4, 4, 8};
    for (const auto& [name, message] : std::vector<std::pair<std::string, std::string>>{
             {"ffn_down_exps.weight", "cannot find the layer of tensor ffn_down_exps.weight"},
             {"blk.2.ffn_up_exps.weight",
              "layer 2 of tensor blk.2.ffn_up_exps.weight is outside the model's 2 layers"}}) {
        try {
            mix_tensor_type(QuantMix::q4_k_m, {name, 3, {256, 256, 8, 1}, 1}, experts, counters);
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

TEST(QuantRun, MixThenTypeLinesLastMatchWins) {
    FuseDir d;
    const std::string a = d.llama("a.gguf", 3, 1, GGML_TYPE_F32, 256);
    ASSERT_TRUE(d.run({a},
                      "out Q4_K_M\ntype blk.*.attn_q.weight q8_0\n"
                      "type blk.1.attn_q.weight f16\ntype *norm* q8_0\n"
                      "type token_embd.weight keep\n")
                    .ok);
    SourceModel out;
    out.open(d.out);
    const std::map<std::string, ggml_type> expected = {
        {"blk.0.attn_q.weight", GGML_TYPE_Q8_0},   {"blk.1.attn_q.weight", GGML_TYPE_F16},
        {"blk.2.attn_q.weight", GGML_TYPE_Q8_0},   {"blk.0.ffn_up.weight", GGML_TYPE_Q4_K},
        {"blk.0.attn_norm.weight", GGML_TYPE_F32}, {"output.weight", GGML_TYPE_Q6_K},
        {"token_embd.weight", GGML_TYPE_F32}};
    for (const auto& [name, type] : expected) {
        EXPECT_EQ(tensor_type(out, out.tensor_index.at(name)), type) << name;
    }
    EXPECT_EQ(gguf_get_val_u32(out.gguf, gguf_find_key(out.gguf, "general.file_type")), 15u);
}

// The quantizer's own bytes for F32 rows, with one importance list per `rows_per_list`.
std::vector<uint8_t> quantized(const std::vector<float>& rows, const std::vector<float>& lists,
                               int64_t rows_per_list) {
    const size_t row_bytes = ggml_row_size(GGML_TYPE_Q4_K, 256);
    std::vector<uint8_t> bytes(rows.size() / 256 * row_bytes);
    for (size_t r = 0; r < rows.size() / 256; r += size_t(rows_per_list)) {
        ggml_quantize_chunk(
            GGML_TYPE_Q4_K, rows.data() + r * 256, bytes.data() + r * row_bytes, 0, rows_per_list,
            256, lists.empty() ? nullptr : lists.data() + r / size_t(rows_per_list) * 256);
    }
    return bytes;
}

// Each expert's rows are quantized with its own list; rows of a stacked layer with
// the list of the source layer they come from; a tensor without an entry without.
TEST(QuantRun, EntriesReachTheQuantizer) {
    FuseDir d;
    FixtureModel m = fixture_model();
    gguf_set_val_str(m.meta.get(), "general.architecture", "llama");
    gguf_set_val_u32(m.meta.get(), "llama.block_count", 2);
    for (int layer = 0; layer < 2; ++layer) {
        const std::string p = "blk." + std::to_string(layer) + ".";
        add_tensor(m, p + "ffn_down_exps.weight", GGML_TYPE_F32, {256, 3, 4, 1}, 5 + layer);
        add_tensor(m, p + "attn_q.weight", GGML_TYPE_F32, {256, 2, 1, 1}, 7 + layer);
    }
    const std::string a = d.write("a.gguf", m);
    std::vector<float> experts(256 * 4),
        layers[2] = {std::vector<float>(256), std::vector<float>(256)};
    for (size_t i = 0; i < experts.size(); ++i) {
        experts[i] = float(1 + (i * 7919) % 97);
    }
    for (size_t i = 0; i < 256; ++i) {
        layers[0][i] = float(1 + i * 3 % 13);
        layers[1][i] = float(1 + i * 4 % 13);
    }
    const std::string matrix = d.dir.file("m.dat");
    write_matrix_binary(matrix, {{"blk.0.ffn_down_exps.weight", experts, {1}},
                                 {"blk.0.attn_q.weight", layers[0], {1}},
                                 {"blk.1.attn_q.weight", layers[1], {1}}});
    const auto values = [&](const std::string& name) { return read_tensor_floats(a, name); };

    ASSERT_TRUE(d.run({a}, "out q4_k", 2, {matrix, {}}).ok);
    const auto exps = read_tensor_bytes(d.out, "blk.0.ffn_down_exps.weight");
    EXPECT_EQ(exps, quantized(values("blk.0.ffn_down_exps.weight"), experts, 3));
    EXPECT_NE(exps, quantized(values("blk.0.ffn_down_exps.weight"), {}, 12));
    EXPECT_EQ(read_tensor_bytes(d.out, "blk.1.ffn_down_exps.weight"),
              quantized(values("blk.1.ffn_down_exps.weight"), {}, 6));

    ASSERT_TRUE(d.run({a}, "out q4_k\nstack 0:1 0:0 0:1", 2, {matrix, {}}).ok);
    for (const auto& [output, source] : {std::pair<int, int>{0, 1}, {1, 0}, {2, 1}}) {
        EXPECT_EQ(read_tensor_bytes(d.out, "blk." + std::to_string(output) + ".attn_q.weight"),
                  quantized(values("blk." + std::to_string(source) + ".attn_q.weight"),
                            layers[source], 2))
            << output;
    }
}

}  // namespace
}  // namespace tevrin::testing
