// Seeded random draws. Nothing is shared: every random method makes a fresh
// engine per row (dare, della) or per block of 32 rows (chaos) from the tensor's
// seed and the row number, so output never depends on threads or chunking.
#pragma once

#include <cstdint>
#include <string>

#include "blend/row_engine.h"
#include "recipe/mix64.h"

namespace tevrin {

// Seed of one output tensor: mix64(recipe_seed ^ mix64(hash of name)), the hash
// being the standard library's string hash (_Hash_bytes, seed 0xc70f6907).
uint64_t tensor_seed(uint64_t recipe_seed, const std::string& name);

// Chaos draws one set of weights per block of this many rows.
inline constexpr int64_t kChaosBlockRows = 32;

uint64_t dare_engine_seed(uint64_t tensor_seed, int64_t row);
uint64_t della_engine_seed(uint64_t tensor_seed, int64_t row);
uint64_t chaos_engine_seed(uint64_t tensor_seed, int64_t row);

// A 64-bit engine output as a float in [0, 1): rounded to the nearest float, scaled
// by 2^-64, and pulled back below 1 when that rounding reaches it.
float unit_float(uint64_t bits);

// unit_float of the engine's next output.
float uniform_draw(RowEngine& engine);

// `count` uniform draws into `out`, the same values as `count` calls of
// uniform_draw in a row.
void uniform_draws(RowEngine& engine, float* out, int64_t count);

// State of a run of gamma draws (shape alpha, scale 1) with its cached normal.
struct GammaDraw {
    float alpha = 1.0f;
    float adjusted_alpha = 1.0f;
    float a1 = 0.0f;
    float a2 = 0.0f;
    float cached_normal = 0.0f;
    bool cache_filled = false;
};

GammaDraw make_gamma_draw(float alpha);

// Standard normal by the polar method; of each pair the y value comes first.
float normal_draw(GammaDraw& state, RowEngine& engine);

// Marsaglia and Tsang's method, with the alpha < 1 boost.
float gamma_draw(GammaDraw& state, RowEngine& engine);

}  // namespace tevrin
