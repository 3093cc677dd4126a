// The methods behind blend_rows, one function each. All take the call's arguments
// as they came in; rows >= 1 and row_len >= 1 are guaranteed by blend_rows.
//
// Threads: like blend_rows, each kernel touches only its call's output and locals.
#pragma once

#include <cstdint>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

struct BlendCall {
    const MethodSpec& spec;
    uint64_t seed;
    int64_t first_row;
    const std::vector<const float*>& sources;
    float* out;
    int64_t rows;
    int64_t row_len;
};

// Element-wise and whole-row methods that need no task vectors.
void blend_linear(const BlendCall& call);
void blend_slerp(const BlendCall& call);
void blend_pick(const BlendCall& call);
void blend_median(const BlendCall& call);
void blend_nearswap(const BlendCall& call);
void blend_chaos(const BlendCall& call);

// Methods on the differences of the donors (entries 1..) from the base (entry 0).
void blend_task(const BlendCall& call);
void blend_ties(const BlendCall& call);
void blend_dare(const BlendCall& call);
void blend_breadcrumbs(const BlendCall& call);
void blend_della(const BlendCall& call);

// Task-vector methods whose factors come from per-row statistics of the donors.
void blend_model_stock(const BlendCall& call);
void blend_sce(const BlendCall& call);

// Means and interpolations of row directions on the unit sphere.
void blend_karcher(const BlendCall& call);
void blend_multislerp(const BlendCall& call);
void blend_nuslerp(const BlendCall& call);

}  // namespace tevrin
