// The model shapes tevrin-sample writes: which tensors, in which order and
// shape, and the header keys that differ by shape. Shared by the generator's
// main file only.
//
//   llama  token_embd, per layer attn_norm, attn_q/k/v/output, ffn_norm,
//          ffn_gate/up/down, then output_norm and output
//   tied   llama without output.weight (the head reuses token_embd)
//   qwen2  llama plus attn_q/k/v biases, architecture qwen2
//   moe    llama whose feed-forward is 4 experts, 2 used per token: the router
//          ffn_gate_inp and the 3-D ffn_gate_exps, ffn_up_exps, ffn_down_exps
//   deci   llama with per-layer arrays of head counts, key/value head counts
//          (odd layers have half as many key/value heads) and feed-forward
//          lengths, architecture deci
//   phi3   fused attn_qkv and a fused ffn_up of twice the feed-forward length,
//          no ffn_gate, architecture phi3
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/gguf_handle.h"

namespace tevrin {

enum class SampleShape { llama, tied, qwen2, moe, deci, phi3 };

struct ShapeParams {
    SampleShape shape = SampleShape::llama;
    int64_t layers = 4;
    int64_t width = 256;
    int64_t ffn = 768;
    int64_t vocab = 512;
    ggml_type type = GGML_TYPE_F16;
    std::string arch = "llama";
};

struct SampleTensor {
    std::string name;
    ggml_type type;
    int64_t ne0;          // row length
    int64_t ne1;          // rows; 1 for a vector
    bool norm = false;    // weights around 1 rather than around 0
    int64_t ne2 = 1;      // experts of a 3-D tensor
    bool vector = false;  // a 1-D tensor of values around 0 (a bias)
};

// Fails with "unknown shape '<text>'".
SampleShape parse_shape(const std::string& text);

// The architecture a shape is written as unless --arch says otherwise.
const char* shape_arch(SampleShape shape);

// Attention heads (width / 64, at least 1) and key/value heads of a layer.
uint32_t head_count(const ShapeParams& p);
uint32_t head_count_kv(const ShapeParams& p, int64_t layer);

std::vector<SampleTensor> shape_tensors(const ShapeParams& p);

// The keys a shape adds to the llama header or turns into per-layer arrays;
// none for llama and tied.
void set_shape_metadata(gguf_context* g, const ShapeParams& p);

}  // namespace tevrin
