// Throughput of blend_rows per method, over 2, 4 and 8 sources and the two row
// lengths that dominate real models. Items are elements of the output, so a
// method whose items/s stays flat from 4096 to 14336 scales linearly with row
// length (the point for ties and breadcrumbs, which select thresholds per row).
// After the table, model_stock and sce are timed against ties on one pair.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
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
    spec.t = kind == BlendMethod::nearswap     ? 0.001f
             : kind == BlendMethod::karcher    ? 10.0f
             : kind == BlendMethod::multislerp ? 0.0f
                                               : 0.5f;
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

// model_stock and sce against ties on the same sources (a pair, then 4 and 8),
// timed in turns within one run by the thread's CPU time, so that other load on
// the machine weighs on all three alike. The target is at most 1.3 times the time
// of ties. Median of 21 rounds of 8 calls each.
double thread_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double median_seconds(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

bool compare_with_ties() {
    const BlendMethod methods[] = {BlendMethod::ties, BlendMethod::model_stock, BlendMethod::sce};
    bool ok = true;
    for (int64_t count : {2, 4, 8}) {
        for (int64_t row_len : {4096, 14336}) {
            std::vector<const float*> sources;
            for (const auto& r : source_rows(count, row_len)) {
                sources.push_back(r.data());
            }
            std::vector<float> out(static_cast<size_t>(kRows * row_len));
            std::vector<double> times[3];
            for (int round = 0; round < 21; ++round) {
                for (int m = 0; m < 3; ++m) {
                    MethodSpec spec;
                    spec.method = methods[m];
                    const double start = thread_seconds();
                    for (int call = 0; call < 8; ++call) {
                        blend_rows(spec, 0x5eed, call * kRows, sources, out.data(), kRows, row_len);
                        benchmark::DoNotOptimize(out.data());
                    }
                    times[m].push_back(thread_seconds() - start);
                }
            }
            const double ties = median_seconds(times[0]);
            std::printf("%lld sources, rows of %lld: ties %.2f ms", static_cast<long long>(count),
                        static_cast<long long>(row_len), ties * 1e3);
            for (int m = 1; m < 3; ++m) {
                const double ratio = median_seconds(times[m]) / ties;
                std::printf(", %s %.2f ms (%.2fx)", method_word(methods[m]),
                            median_seconds(times[m]) * 1e3, ratio);
                ok = ok && ratio <= 1.3;
            }
            std::printf("\n");
        }
    }
    std::printf("%s\n", ok ? "within target (model_stock, sce <= 1.3x ties)" : "OVER TARGET");
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    for (int m = 0; m < kMethodCount; ++m) {
        const auto kind = static_cast<BlendMethod>(m);
        benchmark::RegisterBenchmark((std::string("blend/") + method_word(kind)).c_str(),
                                     [kind](benchmark::State& state) { run_blend(state, kind); })
            ->ArgNames({"sources", "row_len"})
            ->ArgsProduct({{2, 4, 8}, {4096, 14336}})
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return compare_with_ties() ? 0 : 1;
}
