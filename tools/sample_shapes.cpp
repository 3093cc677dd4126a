#include "tools/sample_shapes.h"

#include <stdexcept>

namespace tevrin {
namespace {

struct ShapeWord {
    const char* word;
    SampleShape shape;
    const char* arch;
};

const ShapeWord kShapes[] = {
    {"llama", SampleShape::llama, "llama"}, {"tied", SampleShape::tied, "llama"},
    {"qwen2", SampleShape::qwen2, "qwen2"}, {"moe", SampleShape::moe, "llama"},
    {"deci", SampleShape::deci, "deci"},    {"phi3", SampleShape::phi3, "phi3"},
};

constexpr int64_t kExperts = 4;
constexpr int64_t kExpertsUsed = 2;

int64_t kv_width(const ShapeParams& p, int64_t layer) {
    return p.width / head_count(p) * head_count_kv(p, layer);
}

void add_attention(std::vector<SampleTensor>& list, const ShapeParams& p, const std::string& b,
                   int64_t layer) {
    const int64_t w = p.width;
    const int64_t kv = kv_width(p, layer);
    if (p.shape == SampleShape::phi3) {
        list.push_back({b + "attn_qkv.weight", p.type, w, w + 2 * kv});
    } else {
        list.push_back({b + "attn_q.weight", p.type, w, w});
        list.push_back({b + "attn_k.weight", p.type, w, kv});
        list.push_back({b + "attn_v.weight", p.type, w, kv});
    }
    if (p.shape == SampleShape::qwen2) {
        list.push_back({b + "attn_q.bias", GGML_TYPE_F32, w, 1, false, 1, true});
        list.push_back({b + "attn_k.bias", GGML_TYPE_F32, kv, 1, false, 1, true});
        list.push_back({b + "attn_v.bias", GGML_TYPE_F32, kv, 1, false, 1, true});
    }
    list.push_back({b + "attn_output.weight", p.type, w, w});
}

void add_feed_forward(std::vector<SampleTensor>& list, const ShapeParams& p, const std::string& b) {
    const int64_t w = p.width;
    if (p.shape == SampleShape::moe) {
        list.push_back({b + "ffn_gate_inp.weight", GGML_TYPE_F32, w, kExperts});
        list.push_back({b + "ffn_gate_exps.weight", p.type, w, p.ffn, false, kExperts});
        list.push_back({b + "ffn_up_exps.weight", p.type, w, p.ffn, false, kExperts});
        list.push_back({b + "ffn_down_exps.weight", p.type, p.ffn, w, false, kExperts});
    } else if (p.shape == SampleShape::phi3) {
        list.push_back({b + "ffn_up.weight", p.type, w, 2 * p.ffn});
        list.push_back({b + "ffn_down.weight", p.type, p.ffn, w});
    } else {
        list.push_back({b + "ffn_gate.weight", p.type, w, p.ffn});
        list.push_back({b + "ffn_up.weight", p.type, w, p.ffn});
        list.push_back({b + "ffn_down.weight", p.type, p.ffn, w});
    }
}

void set_u32_per_layer(gguf_context* g, const std::string& key, const std::vector<uint32_t>& v) {
    gguf_set_arr_data(g, key.c_str(), GGUF_TYPE_UINT32, v.data(), v.size());
}

}  // namespace

SampleShape parse_shape(const std::string& text) {
    for (const auto& s : kShapes) {
        if (text == s.word) {
            return s.shape;
        }
    }
    throw std::invalid_argument("unknown shape '" + text + "'");
}

const char* shape_arch(SampleShape shape) {
    for (const auto& s : kShapes) {
        if (s.shape == shape) {
            return s.arch;
        }
    }
    return "llama";
}

uint32_t head_count(const ShapeParams& p) {
    return uint32_t(p.width >= 64 ? p.width / 64 : 1);
}

uint32_t head_count_kv(const ShapeParams& p, int64_t layer) {
    const uint32_t heads = head_count(p);
    const bool halved = p.shape == SampleShape::deci && layer % 2 == 1 && heads % 2 == 0;
    return halved ? heads / 2 : heads;
}

std::vector<SampleTensor> shape_tensors(const ShapeParams& p) {
    const int64_t w = p.width;
    std::vector<SampleTensor> list = {{"token_embd.weight", p.type, w, p.vocab}};
    for (int64_t l = 0; l < p.layers; ++l) {
        const std::string b = "blk." + std::to_string(l) + ".";
        list.push_back({b + "attn_norm.weight", GGML_TYPE_F32, w, 1, true});
        add_attention(list, p, b, l);
        list.push_back({b + "ffn_norm.weight", GGML_TYPE_F32, w, 1, true});
        add_feed_forward(list, p, b);
    }
    list.push_back({"output_norm.weight", GGML_TYPE_F32, w, 1, true});
    if (p.shape != SampleShape::tied) {
        list.push_back({"output.weight", p.type, w, p.vocab});
    }
    return list;
}

void set_shape_metadata(gguf_context* g, const ShapeParams& p) {
    const std::string& a = p.arch;
    if (p.shape == SampleShape::moe) {
        gguf_set_val_u32(g, (a + ".expert_count").c_str(), uint32_t(kExperts));
        gguf_set_val_u32(g, (a + ".expert_used_count").c_str(), uint32_t(kExpertsUsed));
    }
    if (p.shape == SampleShape::deci) {
        std::vector<uint32_t> heads, kv, ffn;
        for (int64_t l = 0; l < p.layers; ++l) {
            heads.push_back(head_count(p));
            kv.push_back(head_count_kv(p, l));
            ffn.push_back(uint32_t(p.ffn));
        }
        set_u32_per_layer(g, a + ".attention.head_count", heads);
        set_u32_per_layer(g, a + ".attention.head_count_kv", kv);
        set_u32_per_layer(g, a + ".feed_forward_length", ffn);
    }
}

}  // namespace tevrin
