#include "fuse/quant_mix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <numeric>
#include <stdexcept>

#include <ggml.h>

namespace tevrin {

namespace {

enum class Role {
    token_embd,
    attn_q,
    attn_v,  // also the fused qkv and the kv_b projections: the v-sensitive ones
    attn_k,
    attn_output,
    ffn_up,
    ffn_gate,
    ffn_down,
    output,
    other,
};

bool contains(const std::string& name, const char* part) {
    return name.find(part) != std::string::npos;
}

Role role_of(const std::string& name) {
    if (name == "output.weight") {
        return Role::output;
    }
    if (name == "token_embd.weight" || name == "per_layer_token_embd.weight") {
        return Role::token_embd;
    }
    if (contains(name, "attn_qkv.weight") || contains(name, "attn_kv_b.weight") ||
        contains(name, "attn_v.weight")) {
        return Role::attn_v;
    }
    if (contains(name, "attn_k.weight")) {
        return Role::attn_k;
    }
    if (contains(name, "attn_q.weight")) {
        return Role::attn_q;
    }
    if (contains(name, "attn_output.weight")) {
        return Role::attn_output;
    }
    if (contains(name, "ffn_up")) {
        return Role::ffn_up;
    }
    if (contains(name, "ffn_gate")) {
        return Role::ffn_gate;
    }
    return contains(name, "ffn_down") ? Role::ffn_down : Role::other;
}

// Matrices that stay in their source type: routers, convolutions, position and
// token-type tables, and small projections of particular architectures.
constexpr const char* kNeverQuantized[] = {
    "_norm.weight",
    "ffn_gate_inp.weight",
    "ffn_gate_tid2eid.weight",
    "altup",
    "laurel",
    "per_layer_model_proj",
    "ssm_conv1d",
    "shortconv.conv.weight",
    "indexer.k_proj.weight",
    "indexer.q_proj.weight",
    "time_mix_first.weight",
    "time_mix_w0.weight",
    "time_mix_w1.weight",
    "time_mix_w2.weight",
    "time_mix_v0.weight",
    "time_mix_v1.weight",
    "time_mix_v2.weight",
    "time_mix_a0.weight",
    "time_mix_a1.weight",
    "time_mix_a2.weight",
    "time_mix_g1.weight",
    "time_mix_g2.weight",
    "time_mix_decay_w1.weight",
    "time_mix_decay_w2.weight",
    "time_mix_lerp_fused.weight",
    "attn_rel_b.weight",
    ".position_embd",
    "sam.pos_embd",
    "sam.neck.",
    "sam.net_",
    ".rel_pos",
    ".patch_embd",
    ".patch_merger",
    "a.rvq.codebook",
    "mm.a.code_embd",
};

// The layer number after "blk.", read as a decimal integer after optional space
// and sign; false when there is none.
bool read_layer(const std::string& name, int32_t& layer) {
    if (name.compare(0, 4, "blk.") != 0) {
        return false;
    }
    const char* begin = name.c_str() + 4;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(begin, &end, 10);
    if (end == begin || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        return false;
    }
    layer = int32_t(value);
    return true;
}

// Early, late and every third layer in between get more bits.
bool more_bits(int32_t layer, int32_t layers) {
    return layer < layers / 8 || layer >= 7 * layers / 8 || (layer - layers / 8) % 3 == 2;
}

// The 70-billion-parameter shapes, whose shared v projection is small enough to
// store with more bits at little cost.
bool seventy_b(const ModelFacts& f) {
    if (f.arch == "llama") {
        return f.n_expert != 8 && f.n_layer == 80 && f.n_head != f.n_head_kv;
    }
    if (f.arch == "qwen2" || f.arch == "deci" || f.arch == "olmo") {
        return f.n_layer == 80;
    }
    return f.arch == "jais2" && f.n_layer == 68;
}

uint32_t gqa(const ModelFacts& f) {
    return f.n_head_kv == 0 ? 0 : f.n_head / f.n_head_kv;
}

// Expert models spread a layer's feed-forward tensors over the visit order, so
// their layer is read from the name; dense models count.
int32_t ffn_layer(const std::string& name, int32_t counter, const ModelFacts& f) {
    if (f.n_expert <= 1) {
        return counter;
    }
    int32_t layer = -1;
    if (!read_layer(name, layer)) {
        throw std::runtime_error("cannot find the layer of tensor " + name);
    }
    if (layer < 0 || layer >= f.n_layer) {
        throw std::runtime_error("layer " + std::to_string(layer) + " of tensor " + name +
                                 " is outside the model's " + std::to_string(f.n_layer) +
                                 " layers");
    }
    return layer;
}

ggml_type head_type(QuantMix mix, const MixTensor& t, const ModelFacts& f) {
    const ggml_type main = mix == QuantMix::q2_k_s   ? GGML_TYPE_Q2_K
                           : mix <= QuantMix::q3_k_l ? GGML_TYPE_Q3_K
                           : mix <= QuantMix::q4_k_m ? GGML_TYPE_Q4_K
                                                     : GGML_TYPE_Q5_K;
    if (f.arch == "falcon" || t.ne[0] % ggml_blck_size(main) != 0) {
        return GGML_TYPE_Q8_0;
    }
    return GGML_TYPE_Q6_K;
}

ggml_type attn_v_type(QuantMix mix, ggml_type type, const ModelFacts& f, int32_t i, int32_t n) {
    if (mix == QuantMix::q2_k_s && gqa(f) >= 4) {
        type = GGML_TYPE_Q4_K;
    } else if (mix == QuantMix::q3_k_m) {
        type = i < 2 ? GGML_TYPE_Q5_K : GGML_TYPE_Q4_K;
    } else if (mix == QuantMix::q3_k_l) {
        type = GGML_TYPE_Q5_K;
    } else if ((mix == QuantMix::q4_k_m || mix == QuantMix::q5_k_m) && more_bits(i, n)) {
        type = GGML_TYPE_Q6_K;
    } else if (mix == QuantMix::q4_k_s && i < 4) {
        type = GGML_TYPE_Q5_K;
    }
    if (seventy_b(f) && (type == GGML_TYPE_Q3_K || type == GGML_TYPE_Q4_K)) {
        type = GGML_TYPE_Q5_K;
    }
    return f.n_expert == 8 ? GGML_TYPE_Q8_0 : type;
}

ggml_type ffn_down_type(QuantMix mix, ggml_type type, bool falcon, int32_t i, int32_t n) {
    switch (mix) {
        case QuantMix::q2_k_s:
            return i < n / 8 ? GGML_TYPE_Q4_K : type;
        case QuantMix::q3_k_m:
            if (i < n / 16) {
                return GGML_TYPE_Q5_K;
            }
            return !falcon || more_bits(i, n) ? GGML_TYPE_Q4_K : GGML_TYPE_Q3_K;
        case QuantMix::q3_k_l:
            return falcon ? GGML_TYPE_Q4_K : GGML_TYPE_Q5_K;
        case QuantMix::q4_k_m:
            if (falcon) {
                return i < n / 16        ? GGML_TYPE_Q6_K
                       : more_bits(i, n) ? GGML_TYPE_Q5_K
                                         : GGML_TYPE_Q4_K;
            }
            return more_bits(i, n) ? GGML_TYPE_Q6_K : type;
        case QuantMix::q5_k_m:
            return more_bits(i, n) ? GGML_TYPE_Q6_K : type;
        case QuantMix::q4_k_s:
            return !falcon && i < n / 8 ? GGML_TYPE_Q5_K : type;
        default:
            return type;
    }
}

ggml_type attn_output_type(QuantMix mix, ggml_type type, const ModelFacts& f) {
    if (f.arch == "falcon") {
        return mix == QuantMix::q3_k_l ? GGML_TYPE_Q4_K : type;
    }
    if (f.n_expert == 8) {
        const bool raised = mix == QuantMix::q3_k_s || mix == QuantMix::q3_k_m ||
                            mix == QuantMix::q4_k_s || mix == QuantMix::q4_k_m;
        return raised ? GGML_TYPE_Q5_K : type;
    }
    if (mix == QuantMix::q3_k_m) {
        return GGML_TYPE_Q4_K;
    }
    return mix == QuantMix::q3_k_l ? GGML_TYPE_Q5_K : type;
}

ggml_type main_type(QuantMix mix) {
    switch (mix) {
        case QuantMix::q2_k_s:
            return GGML_TYPE_Q2_K;
        case QuantMix::q3_k_s:
        case QuantMix::q3_k_m:
        case QuantMix::q3_k_l:
            return GGML_TYPE_Q3_K;
        case QuantMix::q4_k_s:
        case QuantMix::q4_k_m:
            return GGML_TYPE_Q4_K;
        default:
            return GGML_TYPE_Q5_K;
    }
}

// The rules before the fallback; advances the counters of the tensor's role.
ggml_type rule_type(QuantMix mix, const MixTensor& t, const ModelFacts& f, MixCounters& c) {
    const ggml_type type = main_type(mix);
    const Role role = role_of(t.name);
    const bool falcon = f.arch == "falcon";
    if (role == Role::output || (role == Role::token_embd && c.tied_embeddings)) {
        return head_type(mix, t, f);
    }
    switch (role) {
        case Role::attn_v: {
            const ggml_type chosen = attn_v_type(mix, type, f, c.i_attention_wv, c.n_attention_wv);
            ++c.i_attention_wv;
            return chosen;
        }
        case Role::attn_k:
            return f.n_expert == 8 ? GGML_TYPE_Q8_0 : type;
        case Role::ffn_down: {
            const int32_t layer = ffn_layer(t.name, c.i_ffn_down, f);
            ++c.i_ffn_down;
            return ffn_down_type(mix, type, falcon, layer, f.n_layer);
        }
        case Role::attn_output:
            return attn_output_type(mix, type, f);
        case Role::ffn_gate:
            ffn_layer(t.name, c.i_ffn_gate, f);
            ++c.i_ffn_gate;
            return type;
        case Role::ffn_up:
            ffn_layer(t.name, c.i_ffn_up, f);
            ++c.i_ffn_up;
            return type;
        default:
            return type;
    }
}

}  // namespace

bool mix_quantizes(const std::string& name, int32_t n_dims) {
    if (n_dims < 2 || name.size() < 6 || name.compare(name.size() - 6, 6, "weight") != 0) {
        return false;
    }
    if (name == "position_embd.weight" || name == "token_types.weight") {
        return false;
    }
    return std::none_of(std::begin(kNeverQuantized), std::end(kNeverQuantized),
                        [&](const char* part) { return contains(name, part); });
}

MixCounters initial_counters(const std::vector<MixTensor>& tensors) {
    MixCounters c;
    for (const MixTensor& t : tensors) {
        const Role role = role_of(t.name);
        c.n_attention_wv += role == Role::attn_v ? 1 : 0;
        c.tied_embeddings = c.tied_embeddings && role != Role::output;
    }
    return c;
}

std::vector<size_t> visit_order(const std::vector<MixTensor>& tensors) {
    std::vector<size_t> order(tensors.size());
    std::iota(order.begin(), order.end(), size_t(0));
    std::vector<int32_t> layers;
    for (const MixTensor& t : tensors) {
        int32_t layer = -1;
        layers.push_back(read_layer(t.name, layer) ? layer : -1);
    }
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        if (layers[a] != layers[b]) {
            return layers[a] < layers[b];
        }
        return tensors[a].name < tensors[b].name;
    });
    return order;
}

int32_t mix_tensor_type(QuantMix mix, const MixTensor& tensor, const ModelFacts& facts,
                        MixCounters& counters) {
    if (!mix_quantizes(tensor.name, tensor.n_dims)) {
        return tensor.source_type;
    }
    return mix_fallback_type(rule_type(mix, tensor, facts, counters), tensor.ne[0]);
}

std::vector<int32_t> mix_types(QuantMix mix, const std::vector<MixTensor>& tensors,
                               const ModelFacts& facts) {
    MixCounters counters = initial_counters(tensors);
    std::vector<int32_t> types(tensors.size(), 0);
    for (size_t i : visit_order(tensors)) {
        types[i] = mix_tensor_type(mix, tensors[i], facts, counters);
    }
    return types;
}

int32_t mix_fallback_type(int32_t type, int64_t row_len) {
    const ggml_type t = ggml_type(type);
    if (row_len % ggml_blck_size(t) == 0) {
        return type;
    }
    ggml_type smaller = GGML_TYPE_F16;
    switch (t) {
        case GGML_TYPE_IQ1_S:
        case GGML_TYPE_IQ1_M:
        case GGML_TYPE_IQ2_XXS:
        case GGML_TYPE_IQ2_XS:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ3_S:
        case GGML_TYPE_IQ4_XS:
            smaller = GGML_TYPE_IQ4_NL;
            break;
        case GGML_TYPE_Q2_K:
        case GGML_TYPE_Q3_K:
        case GGML_TYPE_TQ1_0:
        case GGML_TYPE_TQ2_0:
            smaller = GGML_TYPE_Q4_0;
            break;
        case GGML_TYPE_Q4_K:
            smaller = GGML_TYPE_Q5_0;
            break;
        case GGML_TYPE_Q5_K:
            smaller = GGML_TYPE_Q5_1;
            break;
        case GGML_TYPE_Q6_K:
            smaller = GGML_TYPE_Q8_0;
            break;
        default:
            break;
    }
    return row_len % ggml_blck_size(smaller) == 0 ? int32_t(smaller) : int32_t(GGML_TYPE_F16);
}

bool mix_needs_matrix(QuantMix mix, const std::string& name, int32_t type) {
    const Role role = role_of(name);
    if (role == Role::token_embd || role == Role::output) {
        return false;
    }
    switch (ggml_type(type)) {
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ2_XXS:
        case GGML_TYPE_IQ2_XS:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ1_M:
        case GGML_TYPE_IQ1_S:
            return true;
        case GGML_TYPE_Q2_K:
            return mix == QuantMix::q2_k_s;
        default:
            return false;
    }
}

}  // namespace tevrin
