// A model given as 4 shards against the same model in one file: whole runs of
// tevrin-fuse, interleaved so both see the same machine load, with CPU seconds,
// wall seconds and peak anonymous memory of each.
//
// The model (~2 GB F16, 17 layers of width 2048) is made by tevrin-sample, then
// copied by tevrin-fuse twice: once whole and once cut into 4 shards by tensor
// count, so both inputs hold the same tensors. Per workload, `kRounds` rounds run
// the whole and the sharded input one after the other, the order swapped and the
// output header made 37 bytes longer every round; the table gives the median of
// each and the ratio sharded / whole.
//
//   bench_shards [--quick] [--dir PATH] [--rounds N] [--only LABEL-PREFIX]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_child.h"
#include "bench/bench_temp_dir.h"

namespace {

using tevrin::TempDir;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int g_rounds = 8;
std::string g_only;  // runs only the workloads whose label starts with it

struct Run {
    double wall = 0.0;
    double cpu = 0.0;
    long peak_anon_kib = 0;
};

// Runs the command with its output into `log`, sampling its anonymous memory;
// fails with the log when the command fails.
Run run_child(const std::vector<std::string>& args, const std::string& log) {
    const tevrin::ChildRun child = tevrin::run_child(args, log, log, true);
    if (child.status != 0) {
        std::ifstream in(log);
        throw std::runtime_error(args[0] +
                                 " failed: " + std::string(std::istreambuf_iterator<char>(in), {}));
    }
    return {child.seconds, child.cpu_seconds, child.peak_anon_kib};
}

void read_whole(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> block(size_t(1) << 22);
    while (in.read(block.data(), std::streamsize(block.size())) || in.gcount() > 0) {
    }
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Workload {
    const char* label;
    std::string recipe;
};

// Runs each workload on both inputs, round by round, and prints one table line.
void compare(const TempDir& dir, const std::string& whole, const std::string& first_shard) {
    const std::string out = (dir.path / "out.gguf").string();
    const std::string log = (dir.path / "run.log").string();
    const Workload workloads[] = {
        {"copy f16 (file to file)", "out f16"},
        {"requantize q8_0", "out q8_0"},
        {"ties 0.5 with itself", "out q8_0\ndefault ties 0.5"},
    };
    const std::string title = "median of " + std::to_string(g_rounds) + " rounds";
    std::printf("\n  %-24s %8s %8s %7s %8s %8s %7s %9s %9s\n", title.c_str(), "cpu 1f", "cpu 4sh",
                "ratio", "wall 1f", "wall 4sh", "ratio", "anon 1f", "anon 4sh");
    for (const Workload& w : workloads) {
        if (std::string(w.label).rfind(g_only, 0) != 0) {
            continue;
        }
        std::vector<double> cpu[2], wall[2];
        long anon[2] = {0, 0};
        for (int r = 0; r < g_rounds; ++r) {
            for (int turn = 0; turn < 2; ++turn) {
                const int k = (turn + r) % 2;
                const std::string& src = k == 0 ? whole : first_shard;
                // A comment of another length each round moves the output's tensor
                // data against the source's: whole-tensor copies run at a speed that
                // depends on that offset, shards or not.
                const std::string recipe = w.recipe + "\n# " + std::string(size_t(37 * r), '.');
                std::vector<std::string> args = {TEVRIN_FUSE_EXE, "-e", recipe, "-o", out, src};
                if (std::string(w.label).find("itself") != std::string::npos) {
                    args.push_back(src);
                }
                const Run run = run_child(args, log);
                cpu[k].push_back(run.cpu);
                wall[k].push_back(run.wall);
                anon[k] = std::max(anon[k], run.peak_anon_kib);
                fs::remove(out);
                sync();
            }
        }
        const double c0 = median(cpu[0]), c1 = median(cpu[1]);
        const double w0 = median(wall[0]), w1 = median(wall[1]);
        std::printf("  %-24s %8.2f %8.2f %7.3f %8.2f %8.2f %7.3f %6.1f MiB %6.1f MiB\n", w.label,
                    c0, c1, c1 / c0, w0, w1, w1 / w0, double(anon[0]) / 1024.0,
                    double(anon[1]) / 1024.0);
        std::fflush(stdout);
    }
}

int run(bool quick, const fs::path& parent) {
    TempDir dir(parent);
    const std::string model = (dir.path / "model.gguf").string();
    const std::string whole = (dir.path / "whole.gguf").string();
    const std::string log = (dir.path / "make.log").string();
    const std::vector<std::string> shape =
        quick ? std::vector<std::string>{"--width", "256", "--layers", "2", "--vocab", "512"}
              : std::vector<std::string>{"--width", "2048", "--layers", "17", "--vocab", "16384"};
    std::vector<std::string> make = {TEVRIN_SAMPLE_EXE, "-o", model};
    make.insert(make.end(), shape.begin(), shape.end());
    run_child(make, log);
    const int64_t tensors = 2 + 1 + (quick ? 2 : 17) * 9;  // token_embd, output, norm, blocks
    run_child({TEVRIN_FUSE_EXE, "-e", "out f16", "-o", whole, model}, log);
    run_child(
        {TEVRIN_FUSE_EXE, "-e", "out f16", "--split-max-tensors", std::to_string((tensors + 3) / 4),
         "-o", (dir.path / "sharded.gguf").string(), model},
        log);
    fs::remove(model);
    std::printf("[models] %s\n  whole.gguf %.2f GB\n", dir.path.c_str(),
                double(fs::file_size(whole)) / 1e9);
    std::string first_shard;
    for (int no = 1; no <= 4; ++no) {
        const fs::path shard = dir.path / ("sharded-0000" + std::to_string(no) + "-of-00004.gguf");
        std::printf("  %s %.2f GB\n", shard.filename().c_str(), double(fs::file_size(shard)) / 1e9);
        read_whole(shard);
        first_shard = first_shard.empty() ? shard.string() : first_shard;
    }
    read_whole(whole);
    double load[3] = {};
    if (getloadavg(load, 3) == 3) {
        std::printf("[load] %.1f %.1f %.1f on %u hardware threads\n", load[0], load[1], load[2],
                    std::thread::hardware_concurrency());
    }
    compare(dir, whole, first_shard);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        bool quick = false;
        fs::path parent = fs::temp_directory_path();
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            if (arg == "--quick") {
                quick = true;
            } else if (arg == "--dir" && i + 1 < argc) {
                parent = argv[++i];
            } else if (arg == "--rounds" && i + 1 < argc) {
                g_rounds = std::max(1, std::atoi(argv[++i]));
            } else if (arg == "--only" && i + 1 < argc) {
                g_only = argv[++i];
            } else {
                throw std::invalid_argument(
                    "usage: bench_shards [--quick] [--dir PATH] [--rounds N] [--only LABEL]");
            }
        }
        return run(quick, parent);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_shards: %s\n", e.what());
        return 1;
    }
}
