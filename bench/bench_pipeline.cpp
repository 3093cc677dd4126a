// End-to-end measurements of the row pipeline on two ~1 GB F16 sample models.
//
// 1. Stage split, in-process, with the library's own functions: decoding both
//    sources to floats, blend_rows per method, and encoding to Q8_0, over every
//    matrix of the pair in the pipeline's chunks and blocks, on one and on two
//    threads, in thread CPU seconds per stage.
// 2. Whole runs of tevrin-fuse against `cat` of one source (page cache warm),
//    the median of several, and the cost of blending two sources `linear`
//    against re-encoding one.
// 3. Peak memory of a fusion run, split into anonymous memory (the pipeline's
//    buffers) and mapped source pages.
// Everything is measured side by side in one run: the seconds depend on the
// machine, the ratios much less. Run times are given as wall and CPU seconds;
// on a shared machine only the CPU seconds are comparable.
//
//   bench_pipeline [--quick] [--dir PATH] [--runs N] [--runs-only] [--fuse PATH]
//   --quick      small models (a few MB), to check the program itself
//   --dir        parent of the temp folder (default: the system temp folder)
//   --runs N     whole runs per command (default 3)
//   --runs-only  the whole runs alone, without the stage split and the memory
//   --fuse PATH  the tool to run (default: this build's), to time another build
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ggml.h>

#include "bench/bench_child.h"
#include "bench/bench_temp_dir.h"
#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/decode_rows.h"
#include "fuse/encode_rows.h"
#include "fuse/output_stream.h"
#include "fuse/parallel_rows.h"
#include "fuse/write_tensor.h"
#include "model/source_model.h"

namespace {

using namespace tevrin;

constexpr double kMiB = 1048576.0;
constexpr double kStreamBufferMiB = double(kStreamBufferBytes) / kMiB;

void print_load(const char* when) {
    double load[3] = {};
    if (getloadavg(load, 3) == 3) {
        std::printf("[load] %s: load average %.1f %.1f %.1f on %u hardware threads\n", when,
                    load[0], load[1], load[2], std::thread::hardware_concurrency());
    }
}

struct Options {
    bool quick = false;
    bool runs_only = false;
    int runs = 3;
    std::filesystem::path parent = std::filesystem::temp_directory_path();
    std::string fuse = TEVRIN_FUSE_EXE;
};

Options parse_options(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            o.quick = true;
        } else if (arg == "--dir" && i + 1 < argc) {
            o.parent = argv[++i];
        } else if (arg == "--runs" && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
            o.runs = std::atoi(argv[++i]);
        } else if (arg == "--runs-only") {
            o.runs_only = true;
        } else if (arg == "--fuse" && i + 1 < argc) {
            o.fuse = argv[++i];
        } else {
            throw std::invalid_argument(
                "usage: bench_pipeline [--quick] [--dir PATH] [--runs N] [--runs-only] [--fuse "
                "PATH]");
        }
    }
    return o;
}

// ---- child processes -------------------------------------------------------

std::string read_text(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The tool's summary line ("tensors=... time=...s"), or the whole log.
std::string summary_line(const std::string& log) {
    const size_t at = log.find("tensors=");
    if (at == std::string::npos) {
        return log;
    }
    return log.substr(at, log.find('\n', at) - at);
}

void make_sample(const TempDir& dir, const Options& o, const std::string& seed,
                 const std::string& path) {
    std::vector<std::string> args = {TEVRIN_SAMPLE_EXE, "--seed", seed, "-o", path};
    const std::vector<std::string> shape =
        o.quick ? std::vector<std::string>{"--width", "256", "--layers", "2", "--vocab", "512"}
                : std::vector<std::string>{"--width", "2048", "--layers", "8", "--vocab", "16384"};
    args.insert(args.begin() + 1, shape.begin(), shape.end());
    const auto log = (dir.path / "sample.log").string();
    const ChildRun run = run_child(args, log, log, false);
    if (run.status != 0) {
        throw std::runtime_error("tevrin-sample failed: " + read_text(log));
    }
    std::printf("  %-7s %.2f GB in %.1f s\n", std::filesystem::path(path).filename().c_str(),
                double(std::filesystem::file_size(path)) / 1e9, run.seconds);
}

// Brings a file into the page cache.
void read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> block(size_t(1) << 22);
    while (in.read(block.data(), std::streamsize(block.size())) || in.gcount() > 0) {
    }
}

// ---- stage split -------------------------------------------------------------

struct MethodCase {
    const char* label;
    BlendMethod method;
    float t;
};

const MethodCase kTimedMethodList[] = {
    {"ties 0.5", BlendMethod::ties, 0.5f},
    {"dare 0.3", BlendMethod::dare, 0.3f},
    {"linear", BlendMethod::linear, 0.5f},
    {"slerp 0.5", BlendMethod::slerp, 0.5f},
};
constexpr size_t kTimedMethods = sizeof kTimedMethodList / sizeof kTimedMethodList[0];

struct Matrix {
    std::string name;
    int64_t index[2];
    int64_t row_len;
    int64_t rows;
};

std::vector<Matrix> list_matrices(const SourceModel& a, const SourceModel& b) {
    std::vector<Matrix> list;
    for (int64_t i = 0; i < tensor_count(a); ++i) {
        const std::array<int64_t, 4> ne = tensor_shape(a, i);
        const std::string name = tensor_name(a, i);
        const auto other = b.tensor_index.find(name);
        if (ne[1] <= 1 || other == b.tensor_index.end()) {
            continue;
        }
        list.push_back(Matrix{name, {i, other->second}, ne[0], ne[1] * ne[2] * ne[3]});
    }
    return list;
}

// Thread CPU seconds per stage, summed over the workers.
struct StageTimes {
    double decode = 0.0;
    double blend[kTimedMethods] = {};
    double encode[kTimedMethods] = {};
};

double thread_cpu_seconds() {
    timespec ts = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// One chunk of one matrix on `workers` threads, as the pipeline takes it: each
// worker decodes its rows of both sources a block at a time, then blends the
// block with every method and encodes each result while the block is in cache.
void time_chunk(const SourceModel* const src[2], const Matrix& m, int64_t start, int64_t n,
                int32_t workers, StageTimes& times) {
    const uint64_t seed = tensor_seed(42, m.name);
    const size_t row_bytes = ggml_row_size(GGML_TYPE_Q8_0, m.row_len);
    const int64_t per_block = block_rows(m.row_len, range_rows(workers, n));
    std::mutex lock;
    parallel_worker_rows(workers, n, [&](int32_t, int64_t lo, int64_t hi) {
        const auto block = size_t(per_block * m.row_len);
        std::vector<float> floats[2] = {std::vector<float>(block), std::vector<float>(block)};
        std::vector<float> blended(block);
        std::vector<uint8_t> encoded(size_t(per_block) * row_bytes);
        const std::vector<const float*> rows = {floats[0].data(), floats[1].data()};
        StageTimes local;
        for (int64_t at = lo; at < hi; at += per_block) {
            const int64_t count = std::min(per_block, hi - at);
            double before = thread_cpu_seconds();
            for (int s = 0; s < 2; ++s) {
                decode_source_rows(*src[s], m.index[s], start + at, count, m.row_len,
                                   floats[s].data());
            }
            double after = thread_cpu_seconds();
            local.decode += after - before;
            for (size_t k = 0; k < kTimedMethods; ++k) {
                MethodSpec spec;
                spec.method = kTimedMethodList[k].method;
                spec.t = kTimedMethodList[k].t;
                before = after;
                blend_rows(spec, seed, start + at, rows, blended.data(), count, m.row_len);
                after = thread_cpu_seconds();
                local.blend[k] += after - before;
                before = after;
                encode_rows(GGML_TYPE_Q8_0, blended.data(), encoded.data(), count, m.row_len,
                            row_bytes);
                after = thread_cpu_seconds();
                local.encode[k] += after - before;
            }
        }
        const std::lock_guard<std::mutex> guard(lock);
        times.decode += local.decode;
        for (size_t k = 0; k < kTimedMethods; ++k) {
            times.blend[k] += local.blend[k];
            times.encode[k] += local.encode[k];
        }
    });
}

// Touches every page of the mappings, so no run pays the first-touch faults.
void touch_mapping(const SourceModel& src) {
    volatile uint8_t sink = 0;
    for (const SourceShard& shard : src.shards) {
        for (uint64_t at = 0; at < shard.mapping_size; at += 4096) {
            sink = sink + shard.mapping[at];
        }
    }
}

void print_stage_table(const StageTimes (&times)[2]) {
    std::printf("\n  thread CPU seconds; b/e = blend / encode\n");
    std::printf("  %-7s %-10s %8s %8s %8s %6s\n", "threads", "method", "decode", "blend", "encode",
                "b/e");
    for (int w = 0; w < 2; ++w) {
        for (size_t k = 0; k < kTimedMethods; ++k) {
            const StageTimes& t = times[w];
            std::printf("  %-7d %-10s %8.2f %8.2f %8.2f %6.2f\n", w + 1, kTimedMethodList[k].label,
                        t.decode, t.blend[k], t.encode[k], t.blend[k] / t.encode[k]);
        }
    }
}

void run_stage_split(const std::string& path_a, const std::string& path_b) {
    SourceModel a;
    SourceModel b;
    a.open(path_a);
    b.open(path_b);
    touch_mapping(a);
    touch_mapping(b);
    const SourceModel* const src[2] = {&a, &b};
    const std::vector<Matrix> matrices = list_matrices(a, b);
    int64_t params = 0;
    for (const Matrix& m : matrices) {
        params += m.rows * m.row_len;
    }
    std::printf(
        "\n[stage split] %zu matrices, %.3f G elements per source, chunks of %lld elements, "
        "blocks of %lld\n",
        matrices.size(), double(params) / 1e9, static_cast<long long>(kChunkElements),
        static_cast<long long>(kBlockElements));
    StageTimes times[2];
    for (const Matrix& m : matrices) {
        const int64_t rows_per_chunk = chunk_rows(m.row_len, m.rows);
        for (int64_t start = 0; start < m.rows; start += rows_per_chunk) {
            const int64_t n = std::min(rows_per_chunk, m.rows - start);
            for (int32_t w = 1; w <= 2; ++w) {  // interleaved, so both see the same machine load
                time_chunk(src, m, start, n, chunk_workers(w, n), times[w - 1]);
            }
        }
    }
    print_stage_table(times);
}

// ---- end to end ----------------------------------------------------------------

struct Command {
    const char* label;
    std::vector<std::string> args;
};

// One run of the command; the output is removed and written back to disk after
// it so no run pays for the previous one's dirty pages.
ChildRun run_once(const Command& c, const TempDir& dir, const std::string& out) {
    const auto log = (dir.path / "run.log").string();
    const auto err = (dir.path / "run.err").string();
    const ChildRun run = run_child(c.args, log, err, false);
    if (run.status != 0) {
        throw std::runtime_error(std::string(c.label) + " failed: " + read_text(log) +
                                 read_text(err));
    }
    std::filesystem::remove(out);
    sync();
    return run;
}

// The median wall and CPU seconds of the runs, and their largest resident set.
ChildRun median_run(const std::vector<ChildRun>& runs) {
    std::vector<double> wall, cpu;
    ChildRun m;
    for (const ChildRun& run : runs) {
        wall.push_back(run.seconds);
        cpu.push_back(run.cpu_seconds);
        m.max_rss_kib = std::max(m.max_rss_kib, run.max_rss_kib);
    }
    std::sort(wall.begin(), wall.end());
    std::sort(cpu.begin(), cpu.end());
    const size_t n = runs.size();  // 1 or more
    m.seconds = 0.5 * (wall[(n - 1) / 2] + wall[n / 2]);
    m.cpu_seconds = 0.5 * (cpu[(n - 1) / 2] + cpu[n / 2]);
    return m;
}

void run_end_to_end(const Options& o, const TempDir& dir, const std::string& a,
                    const std::string& b) {
    const std::string out = (dir.path / "out.gguf").string();
    const std::string& fuse = o.fuse;
    const std::vector<Command> commands = {
        {"cat a > copy", {"/bin/sh", "-c", "exec cat \"$0\" > \"$1\"", a, out}},
        {"fuse linear q8_0", {fuse, "-e", "out q8_0\ndefault linear", "-o", out, a, b}},
        {"fuse ties 0.5 q8_0", {fuse, "-e", "out q8_0\ndefault ties 0.5", "-o", out, a, b}},
        {"requantize a q8_0", {fuse, "-e", "out q8_0", "-o", out, a}},
        {"copy a f16", {fuse, "-e", "out f16", "-o", out, a}},
    };
    // Rounds of every command in turn, so that a change of load hits them all.
    // The sources are read again before each run: some hosts page out what has
    // not been read for a few seconds, page cache included.
    std::vector<std::vector<ChildRun>> runs(commands.size());
    for (int r = 0; r < o.runs; ++r) {
        for (size_t c = 0; c < commands.size(); ++c) {
            read_whole(a);
            read_whole(b);
            runs[c].push_back(run_once(commands[c], dir, out));
        }
    }
    std::vector<ChildRun> m;
    for (const auto& of_command : runs) {
        m.push_back(median_run(of_command));
    }
    std::printf("\n[end to end] median of %d runs each, page cache warm\n", o.runs);
    std::printf("  %-20s %9s %9s %9s %11s\n", "command", "wall s", "cpu s", "wall/cat",
                "maxrss MiB");
    for (size_t c = 0; c < commands.size(); ++c) {
        std::printf("  %-20s %9.2f %9.2f %9.2f %11.1f\n", commands[c].label, m[c].seconds,
                    m[c].cpu_seconds, m[c].seconds / m[0].seconds,
                    double(m[c].max_rss_kib) / 1024.0);
    }
    std::printf("  linear of two / re-encoding one: wall %.3f, cpu %.3f\n",
                m[1].seconds / m[3].seconds, m[1].cpu_seconds / m[3].cpu_seconds);
}

void run_memory(const Options& o, const TempDir& dir, const std::string& a, const std::string& b) {
    const std::string out = (dir.path / "out.gguf").string();
    const auto log = (dir.path / "run.log").string();
    const auto err = (dir.path / "run.err").string();
    const ChildRun run =
        run_child({o.fuse, "-e", "out q8_0\ndefault ties 0.5", "-o", out, a, b}, log, err, true);
    if (run.status != 0) {
        throw std::runtime_error("fusion run failed: " + read_text(log));
    }
    const uint64_t out_bytes = std::filesystem::file_size(out);
    std::filesystem::remove(out);
    const double sources = 2.0;
    // The run takes every core; each worker holds a block of floats per source and a
    // blended one, beside the encoded chunk of Q8_0 (34 bytes per 32 floats).
    const double workers = std::max(1u, std::thread::hardware_concurrency());
    const double blocks = (sources + 1.0) * workers * double(kBlockElements) * 4.0 / kMiB;
    const double encoded = double(kChunkElements) / kMiB * 34.0 / 32.0;
    const double bound = blocks + kStreamBufferMiB + encoded;
    std::printf("\n[memory] fuse ties 0.5 q8_0 of the pair (%.2f GB sources, %.2f GB output)\n",
                double(std::filesystem::file_size(a) + std::filesystem::file_size(b)) / 1e9,
                double(out_bytes) / 1e9);
    std::printf("  %s\n", summary_line(read_text(log)).c_str());
    std::printf("  peak RSS (ru_maxrss)        %8.1f MiB\n", double(run.max_rss_kib) / 1024.0);
    std::printf("  peak anonymous (RssAnon)    %8.1f MiB\n", double(run.peak_anon_kib) / 1024.0);
    std::printf("  peak mapped file (RssFile)  %8.1f MiB  (source pages in the page cache)\n",
                double(run.peak_file_kib) / 1024.0);
    std::printf(
        "  design bound of the buffers %8.1f MiB  ((sources + 1) x %.0f workers x %.0f KiB "
        "blocks + %.0f MiB stream + %.2f MiB encoded chunk)\n",
        bound, workers, double(kBlockElements) * 4.0 / 1024.0, kStreamBufferMiB, encoded);
}

int run(const Options& o) {
    TempDir dir(o.parent);
    const std::string a = (dir.path / "a.gguf").string();
    const std::string b = (dir.path / "b.gguf").string();
    print_load("start");
    std::printf("[models] %s\n", dir.path.c_str());
    make_sample(dir, o, "1", a);
    make_sample(dir, o, "2", b);
    if (!o.runs_only) {
        run_stage_split(a, b);
    }
    run_end_to_end(o, dir, a, b);
    if (!o.runs_only) {
        run_memory(o, dir, a, b);
    }
    print_load("end");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parse_options(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_pipeline: %s\n", e.what());
        return 1;
    }
}
