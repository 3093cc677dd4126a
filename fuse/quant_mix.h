// The per-tensor type choice of the named mixes (q2_k_s ... q5_k_m): by the
// tensor's role, its layer, the model's attention geometry and expert count, and
// the fallback to a smaller block where a row does not fit. The rules and the
// order in which tensors are visited (which feeds the running counters) are those
// of the usual quantizer, so a mix gives the types that tool gives.
//
// Pure functions of their arguments; no state, safe on any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

// What the rules read of the output model.
struct ModelFacts {
    std::string arch;        // general.architecture
    int32_t n_layer = 0;     // output block count
    uint32_t n_head = 0;     // of the first layer
    uint32_t n_head_kv = 0;  // of the first layer; a missing key means n_head
    uint32_t n_expert = 0;   // <arch>.expert_count, 0 without experts
};

struct MixTensor {
    std::string name;
    int32_t n_dims = 2;
    std::array<int64_t, 4> ne = {1, 1, 1, 1};
    int32_t source_type = 1;  // what a tensor the mix does not quantize keeps
};

// The running state of the rules while tensors are visited in visit order.
struct MixCounters {
    int32_t n_attention_wv = 0;   // attention-v-like tensors of the whole output
    bool tied_embeddings = true;  // no output.weight: token_embd serves as the head
    int32_t i_attention_wv = 0;   // attention-v-like tensors seen so far
    int32_t i_ffn_down = 0;
    int32_t i_ffn_gate = 0;
    int32_t i_ffn_up = 0;
};

// Whether the mix quantizes the tensor at all: matrices whose name ends in
// "weight", except norms, expert routers and a list of small special tensors.
bool mix_quantizes(const std::string& name, int32_t n_dims);

// The counters before the first tensor is visited.
MixCounters initial_counters(const std::vector<MixTensor>& tensors);

// Positions of `tensors` in visit order: tensors outside the blocks first, then
// block by block, by name within each.
std::vector<size_t> visit_order(const std::vector<MixTensor>& tensors);

// The type of one tensor, advancing `counters`; tensors must come in visit order.
// Fails with "cannot find the layer of tensor <name>" or "layer <n> of tensor
// <name> is outside the model's <n> layers" for expert models whose feed-forward
// tensor names carry no usable layer number.
int32_t mix_tensor_type(QuantMix mix, const MixTensor& tensor, const ModelFacts& facts,
                        MixCounters& counters);

// The types of all tensors, in the order given.
std::vector<int32_t> mix_types(QuantMix mix, const std::vector<MixTensor>& tensors,
                               const ModelFacts& facts);

// Where a row of `row_len` is no whole number of blocks of `type`: the type with
// a smaller block that the mixes fall back to, or F16 when that does not fit either.
int32_t mix_fallback_type(int32_t type, int64_t row_len);

// Whether the mix can make the tensor in `type` only with an importance matrix.
bool mix_needs_matrix(QuantMix mix, const std::string& name, int32_t type);

}  // namespace tevrin
