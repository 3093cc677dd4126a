// The cost of --compare against its floor: decoding both sources the way a
// fusion does (chunks of 4194304 elements on all threads, pages released after
// each chunk, nothing blended or written), measured side by side in one run on
// two ~1 GB F16 sample models (or of another type) with the page cache warm.
// Runs alternate so both see the same machine load; the least time of each is
// kept, and the median ratio of each side-by-side pair is printed too, which is
// the steadier figure on a shared machine.
//
//   bench_compare [--quick] [--dir PATH] [--runs N] [--threads N] [--type T]
//   --quick   small models (a few MB), to check the program itself
//   --dir     parent of the temp folder (default: the system temp folder)
//   --runs    runs of each (default 3)
//   --threads threads of both (default: all cores)
//   --type    type of the models' matrices, as tevrin-sample takes it (default f16)
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ggml.h>

#include "bench/bench_temp_dir.h"
#include "fuse/compare.h"
#include "fuse/decode_rows.h"
#include "fuse/parallel_rows.h"
#include "fuse/write_tensor.h"
#include "model/source_model.h"

namespace {

using namespace tevrin;
using Clock = std::chrono::steady_clock;

struct Options {
    bool quick = false;
    int runs = 3;
    int threads = 0;  // 0: all cores
    std::string type = "f16";
    std::filesystem::path parent = std::filesystem::temp_directory_path();
};

Options parse_options(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            o.quick = true;
        } else if (arg == "--dir" && i + 1 < argc) {
            o.parent = argv[++i];
        } else if (arg == "--threads" && i + 1 < argc) {
            o.threads = std::max(0, std::atoi(argv[++i]));
        } else if (arg == "--type" && i + 1 < argc) {
            o.type = argv[++i];
        } else if (arg == "--runs" && i + 1 < argc) {
            o.runs = std::max(1, std::atoi(argv[++i]));
        } else {
            throw std::invalid_argument(
                "usage: bench_compare [--quick] [--dir PATH] [--runs N] [--threads N] [--type T]");
        }
    }
    return o;
}

double process_cpu_seconds() {
    timespec ts = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

struct Timing {
    double wall = 0.0;
    double cpu = 0.0;
};

template <typename Body>
Timing timed(const Body& body) {
    const auto start = Clock::now();
    const double cpu = process_cpu_seconds();
    body();
    return {std::chrono::duration<double>(Clock::now() - start).count(),
            process_cpu_seconds() - cpu};
}

void make_sample(const Options& o, const std::string& seed, const std::string& path) {
    const std::string shape =
        o.quick ? "--width 256 --layers 2 --vocab 512" : "--width 2048 --layers 8 --vocab 16384";
    const std::string command = std::string(TEVRIN_SAMPLE_EXE) + " " + shape + " --type " + o.type +
                                " --seed " + seed + " -o " + path;
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("tevrin-sample failed");
    }
}

void read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> block(size_t(1) << 22);
    while (in.read(block.data(), std::streamsize(block.size())) || in.gcount() > 0) {
    }
}

// Every tensor of both sources decoded to floats in the fusion's chunks.
void decode_both(const std::vector<std::string>& paths, int32_t threads, std::vector<float>& dest) {
    SourceModel sources[2];
    sources[0].open(paths[0]);
    sources[1].open(paths[1]);
    for (int64_t i = 0; i < tensor_count(sources[0]); ++i) {
        const std::array<int64_t, 4> ne = tensor_shape(sources[0], i);
        const int64_t rows = ne[1] * ne[2] * ne[3];
        const int64_t rows_per_chunk = chunk_rows(ne[0], rows);
        dest.resize(size_t(rows_per_chunk * ne[0]));
        for (int64_t start = 0; start < rows; start += rows_per_chunk) {
            const int64_t n = std::min(rows_per_chunk, rows - start);
            for (const SourceModel& src : sources) {
                const int64_t index = src.tensor_index.at(tensor_name(sources[0], i));
                parallel_rows(int32_t(std::min<int64_t>(threads, n)), n,
                              [&](int64_t lo, int64_t hi) {
                                  decode_source_rows(src, index, start + lo, hi - lo, ne[0],
                                                     dest.data() + lo * ne[0]);
                              });
                const size_t row_bytes = ggml_row_size(ggml_type(tensor_type(src, index)), ne[0]);
                release_pages(tensor_data(src, index) + size_t(start) * row_bytes,
                              row_bytes * size_t(n));
            }
        }
    }
}

int run(const Options& o) {
    TempDir dir(o.parent);
    const std::vector<std::string> paths = {(dir.path / "a.gguf").string(),
                                            (dir.path / "b.gguf").string()};
    make_sample(o, "1", paths[0]);
    make_sample(o, "2", paths[1]);
    read_whole(paths[0]);
    read_whole(paths[1]);
    const int32_t threads =
        o.threads > 0 ? o.threads : int32_t(std::max(1u, std::thread::hardware_concurrency()));
    std::printf("[compare] two %s models of %.2f GB, %d threads, %d runs each\n", o.type.c_str(),
                double(std::filesystem::file_size(paths[0])) / 1e9, threads, o.runs);
    std::vector<float> buffer;
    std::vector<Timing> decode, compare;
    std::vector<double> wall_ratios, cpu_ratios;
    double checksum = 0.0;
    for (int r = 0; r < o.runs; ++r) {
        decode.push_back(timed([&] { decode_both(paths, threads, buffer); }));
        compare.push_back(timed([&] {
            checksum +=
                compare_sources(paths, threads, nullptr, {}).overall[0][kOverallColumn].cosine;
        }));
        wall_ratios.push_back(compare.back().wall / decode.back().wall);
        cpu_ratios.push_back(compare.back().cpu / decode.back().cpu);
    }
    auto least = [](const std::vector<Timing>& runs, double Timing::*field) {
        double best = runs[0].*field;
        for (const Timing& t : runs) {
            best = std::min(best, t.*field);
        }
        return best;
    };
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::printf("  %-28s %8s %8s\n", "least of the runs", "wall s", "cpu s");
    std::printf("  %-28s %8.3f %8.3f\n", "decode both (the floor)", least(decode, &Timing::wall),
                least(decode, &Timing::cpu));
    std::printf("  %-28s %8.3f %8.3f\n", "compare", least(compare, &Timing::wall),
                least(compare, &Timing::cpu));
    const double median_cpu = median(cpu_ratios);
    const double wall = least(compare, &Timing::wall) / least(decode, &Timing::wall);
    const double cpu = least(compare, &Timing::cpu) / least(decode, &Timing::cpu);
    std::printf("  compare / decode both, least against least: %.2f x wall, %.2f x cpu\n", wall,
                cpu);
    std::printf("  compare / decode both, median of side-by-side pairs: %.2f x wall, %.2f x cpu\n",
                median(wall_ratios), median_cpu);
    std::printf("  target <= 1.10 x (median cpu ratio of the pairs): %s\n",
                median_cpu <= 1.10 ? "met" : "MISSED");
    std::printf("  (mean overall cosine %.6f)\n", checksum / o.runs);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parse_options(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_compare: %s\n", e.what());
        return 1;
    }
}
