#include "blend/draws.h"

#include <bit>
#include <cmath>
#include <functional>

namespace tevrin {

uint64_t tensor_seed(uint64_t recipe_seed, const std::string& name) {
    // Spelled out rather than std::hash so that the seed stays tied to this exact
    // byte hash even if the library's string hash ever changes.
    const uint64_t h = std::_Hash_bytes(name.data(), name.size(), 0xc70f6907ul);
    return mix64(recipe_seed ^ mix64(h));
}

uint64_t dare_engine_seed(uint64_t tensor_seed, int64_t row) {
    return mix64(tensor_seed ^ static_cast<uint64_t>(row));
}

uint64_t della_engine_seed(uint64_t tensor_seed, int64_t row) {
    return mix64(tensor_seed ^ (static_cast<uint64_t>(row) * 40503u));
}

uint64_t chaos_engine_seed(uint64_t tensor_seed, int64_t row) {
    return mix64(tensor_seed * 31u + static_cast<uint64_t>(row / kChaosBlockRows));
}

float unit_float(uint64_t bits) {
    // The nearest float to `bits` times 2^-64, without the branch a compiler emits
    // for unsigned conversion (a coin toss on random input): values with the top
    // bit set are halved, keeping the lost bit as a sticky bit so that rounding is
    // unchanged, converted as signed, and scaled by 2^-63 instead. Both scalings
    // are exact.
    static constexpr float scale[2] = {0x1p-64f, 0x1p-63f};
    const uint64_t top = bits >> 63;
    const uint64_t halved = (bits >> top) | (bits & top);
    const float u = static_cast<float>(static_cast<int64_t>(halved)) * scale[top];
    // Rounding the top outputs to float lands on 2^64, i.e. exactly 1.
    return u >= 1.0f ? std::bit_cast<float>(0x3f7fffffu) : u;
}

float uniform_draw(RowEngine& engine) {
    return unit_float(engine());
}

void uniform_draws(RowEngine& engine, float* out, int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
        out[i] = unit_float(engine());
    }
}

GammaDraw make_gamma_draw(float alpha) {
    GammaDraw state;
    state.alpha = alpha;
    state.adjusted_alpha = alpha < 1.0f ? alpha + 1.0f : alpha;
    state.a1 = state.adjusted_alpha - 0.33333334f;
    state.a2 = 1.0f / std::sqrt(state.a1 * 9.0f);
    return state;
}

float normal_draw(GammaDraw& state, RowEngine& engine) {
    if (state.cache_filled) {
        state.cache_filled = false;
        return state.cached_normal;
    }
    float x = 0.0f;
    float y = 0.0f;
    float r2 = 0.0f;
    do {
        x = 2.0f * uniform_draw(engine) - 1.0f;
        y = 2.0f * uniform_draw(engine) - 1.0f;
        r2 = x * x + y * y;
    } while (r2 > 1.0f || r2 == 0.0f);
    const float m = std::sqrt(std::log(r2) * -2.0f / r2);
    state.cached_normal = x * m;
    state.cache_filled = true;
    return y * m;
}

float gamma_draw(GammaDraw& state, RowEngine& engine) {
    float v = 0.0f;
    for (;;) {
        float n = 0.0f;
        do {
            n = normal_draw(state, engine);
            v = state.a2 * n + 1.0f;
        } while (v <= 0.0f);
        v = (v * v) * v;
        const float u = uniform_draw(engine);
        const double nd = n;
        if (static_cast<double>(u) <= 1.0 - 0.0331 * nd * nd * nd * nd) {
            break;
        }
        const double log_u = std::log(u);
        const double log_v = std::log(v);
        const double bound =
            static_cast<double>(state.a1) * (1.0 - static_cast<double>(v) + log_v) +
            nd * (0.5 * nd);
        if (!(log_u > bound)) {
            break;
        }
    }
    if (state.alpha == state.adjusted_alpha) {
        return state.a1 * v;
    }
    // Shapes below 1 were drawn at alpha + 1; u^(1/alpha) brings them back.
    float u = 0.0f;
    do {
        u = uniform_draw(engine);
    } while (u == 0.0f);
    return std::pow(u, 1.0f / state.alpha) * state.a1 * v;
}

}  // namespace tevrin
