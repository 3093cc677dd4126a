// Throughput of blend_rows per method, over 2, 4 and 8 sources and the two row
// lengths that dominate real models. Items are elements of the output, so a
// method whose items/s stays flat from 4096 to 14336 scales linearly with row
// length (the point for ties and breadcrumbs, which select thresholds per row).
#include <benchmark/benchmark.h>

#include <map>
#include <utility>
#include <vector>

#include "blend/blend.h"
#include "blend/draws.h"
#include "recipe/method_table.h"

namespace {

using namespace tevrin;

constexpr int64_t kRows = 64;

// Deterministic source rows, shared by all benchmarks of one shape.
const std::vector<std::vector<float>>& source_rows(int64_t count, int64_t row_len) {
    static std::map<std::pair<int64_t, int64_t>, std::vector<std::vector<float>>> cache;
    auto& rows = cache[{count, row_len}];
    if (rows.empty()) {
        RowEngine engine(static_cast<uint64_t>(count * 1000003 + row_len));
        for (int64_t s = 0; s < count; ++s) {
            std::vector<float> values(static_cast<size_t>(kRows * row_len));
            for (float& v : values) {
                v = (uniform_draw(engine) - 0.5f) * 0.1f;
            }
            rows.push_back(std::move(values));
        }
    }
    return rows;
}

void run_blend(benchmark::State& state, BlendMethod kind) {
    const int64_t count = state.range(0);
    const int64_t row_len = state.range(1);
    const auto& rows = source_rows(count, row_len);
    std::vector<const float*> sources;
    for (const auto& r : rows) {
        sources.push_back(r.data());
    }
    MethodSpec spec;
    spec.method = kind;
    spec.t = kind == BlendMethod::nearswap ? 0.001f : 0.5f;
    std::vector<float> out(static_cast<size_t>(kRows * row_len));
    int64_t first_row = 0;
    for (auto _ : state) {
        blend_rows(spec, 0x5eed, first_row, sources, out.data(), kRows, row_len);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
        first_row += kRows;
    }
    state.SetItemsProcessed(state.iterations() * kRows * row_len);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    for (int m = 0; m <= static_cast<int>(BlendMethod::nearswap); ++m) {
        const auto kind = static_cast<BlendMethod>(m);
        benchmark::RegisterBenchmark((std::string("blend/") + method_word(kind)).c_str(),
                                     [kind](benchmark::State& state) { run_blend(state, kind); })
            ->ArgNames({"sources", "row_len"})
            ->ArgsProduct({{2, 4, 8}, {4096, 14336}})
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
