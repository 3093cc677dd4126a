#include "recipe/random_recipe.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <string>
#include <vector>

#include "recipe/mix64.h"

namespace tevrin {
namespace {

__extension__ typedef unsigned __int128 Product;

using Engine = std::mt19937_64;

// The draws are part of the output's definition: every value below is computed
// exactly as written, not by a library distribution, so the text is the same
// byte for byte on every machine.

// 0 .. range - 1 from the upper half of a 128-bit product, rejecting the few low
// halves that would bias it. Always takes at least one output, also for range 1.
uint64_t draw_int(Engine& engine, uint64_t range) {
    Product product = static_cast<Product>(engine()) * range;
    uint64_t low = static_cast<uint64_t>(product);
    if (low < range) {
        const uint64_t threshold = (0 - range) % range;  // 2^64 mod range
        while (low < threshold) {
            product = static_cast<Product>(engine()) * range;
            low = static_cast<uint64_t>(product);
        }
    }
    return static_cast<uint64_t>(product >> 64);
}

// [0, 1): rounding the output to a double can reach 1.0, which is pulled back.
double draw_unit(Engine& engine) {
    const double unit = static_cast<double>(engine()) * 0x1p-64;
    return unit >= 1.0 ? 0x1.fffffffffffffp-1 : unit;
}

double draw_real(Engine& engine, double low, double span) {
    return draw_unit(engine) * span + low;
}

// Fixed notation, two decimals, correctly rounded from the exact value, as
// "%.2f" gives it in the C locale; to_chars keeps it so in any process locale.
std::string format2(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 2);
    return std::string(text, result.ptr);
}

// One weight per source, normalised by their sum, as "a,b,c".
std::string draw_weights(Engine& engine, int32_t source_count) {
    std::vector<double> weights;
    double sum = 0.0;
    for (int32_t i = 0; i < source_count; ++i) {
        weights.push_back(draw_real(engine, 0.15, 0.85));
        sum += weights.back();
    }
    std::string text;
    for (const double w : weights) {
        if (!text.empty()) {
            text += ',';
        }
        text += format2(w / sum);
    }
    return text;
}

// The span 0.9 - 0.6 as doubles compute it, one step above the double nearest 0.3.
constexpr double kSpanPoint3 = 0x1.3333333333334p-2;
static_assert(kSpanPoint3 == 0.9 - 0.6);

// Row c of the band methods; rows 0 to 3 are the ones allowed at the model's ends.
std::string band_method(Engine& engine, uint64_t row, int32_t source_count) {
    switch (row) {
        case 0:
            return "linear " + draw_weights(engine, source_count);
        case 1:
            return "slerp " + format2(draw_real(engine, 0.25, 0.5));
        case 2: {
            const std::string density = format2(draw_real(engine, 0.4, 0.4));
            return "ties " + density + " " + draw_weights(engine, source_count);
        }
        case 3: {
            const double end = draw_real(engine, 0.5, 0.4);
            const double start = draw_real(engine, 0.1, 0.4);
            return "slerp " + format2(start) + ">" + format2(end);
        }
        case 4: {
            const std::string rate = format2(draw_real(engine, 0.05, 0.25));
            return "dare " + rate + " " + draw_weights(engine, source_count);
        }
        case 5: {
            const std::string rate = format2(draw_real(engine, 0.1, kSpanPoint3));
            return "della " + rate + " " + draw_weights(engine, source_count);
        }
        case 6: {
            const std::string density = format2(draw_real(engine, 0.6, kSpanPoint3));
            return "breadcrumbs " + density + " " + draw_weights(engine, source_count);
        }
        case 7: {
            const std::string factor = format2(draw_real(engine, 0.4, 0.5));
            return "task " + factor + " " + draw_weights(engine, source_count);
        }
        case 8:
            return source_count == 2 ? "nearswap 0.002" : "median";
        default:
            return "chaos " + format2(draw_real(engine, 0.05, 0.2));
    }
}

}  // namespace

std::string random_recipe(int32_t source_count, int32_t layer_count, uint64_t seed,
                          const std::string& out_type) {
    std::string text = "# Tevrin random blend - seed " + std::to_string(seed) + "\n";
    text += "name Tevrin Blend " + std::to_string(seed % 100000) + "\n";
    text += "out " + out_type + "\n";
    text += "seed " + std::to_string(seed) + "\n";
    if (source_count <= 1) {
        return text + "default pick 0\n";
    }

    Engine engine(mix64(seed));
    text += "default linear " + draw_weights(engine, source_count) + "\n";

    const int32_t n = layer_count > 0 ? layer_count : 16;
    const int32_t hi = std::max(2, n / 3);
    for (int32_t start = 0; start < n;) {
        int32_t size = 2 + static_cast<int32_t>(draw_int(engine, static_cast<uint64_t>(hi - 1)));
        size = std::min(size, n - start);
        if (size <= 0) {
            size = 1;
        }
        const int32_t end = start + size;
        const int32_t last = end - 1;
        // A band that starts in the first two layers or reaches into the last two
        // only gets one of the first four rows.
        const bool inner = start > 1 && last < n - 2;
        const uint64_t row = draw_int(engine, inner ? 10 : 4);
        text += "layers " + std::to_string(start) + "-" + std::to_string(last) + " " +
                band_method(engine, row, source_count) + "\n";
        start = end;
    }

    text += "tensor *attn_q* slerp " + format2(draw_real(engine, 0.25, 0.5)) + "\n";
    text += "tensor token_embd* pick 0\n";
    text += "tensor output* pick 0\n";
    text += "tensor *norm* linear " + draw_weights(engine, source_count) + "\n";
    return text;
}

}  // namespace tevrin
