// Parsing speed of a long recipe: 10,000 lines mixing every directive kind.
#include <benchmark/benchmark.h>

#include <string>

#include "recipe/parse_recipe.h"
#include "recipe/random_recipe.h"

namespace {

std::string long_recipe(int lines) {
    std::string text = "name Long Recipe  # a comment\nout q4_k\nseed 99\ndefault linear 0.5,0.5\n";
    for (int i = 4; i < lines; ++i) {
        const std::string layer = std::to_string(i % 64);
        switch (i % 5) {
            case 0:
                text += "layers " + layer + "-" + std::to_string(i % 64 + 3) +
                        " slerp 0.2>0.8  # schedule\r\n";
                break;
            case 1:
                text += "layers " + layer + " ties 0.5 1,0.7,0.3>0.2,0.4,0.9\n";
                break;
            case 2:
                text += "tensor blk." + layer + ".attn_q* dare 0.25 1,0.5,0.5\n";
                break;
            case 3:
                text += "stack 0:0-3 1:" + layer + "\n";
                break;
            default:
                text += "# just a comment line\n";
                break;
        }
    }
    return text;
}

void BM_ParseRecipe10kLines(benchmark::State& state) {
    const std::string text = long_recipe(10000);
    for (auto _ : state) {
        tevrin::Recipe recipe = tevrin::parse_recipe(text, 2);
        benchmark::DoNotOptimize(recipe);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ParseRecipe10kLines)->Unit(benchmark::kMillisecond);

void BM_RandomRecipe80Layers(benchmark::State& state) {
    uint64_t seed = 0;
    for (auto _ : state) {
        std::string text = tevrin::random_recipe(4, 80, seed++, "q8_0");
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_RandomRecipe80Layers)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
