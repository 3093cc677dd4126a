// Encoding speed: the vector encoders against the base library's, and whole runs
// against the reference quantizer of the pinned inference tree.
//
// 1. In-process, one thread: F16-valued rows encoded to q2_k to q6_k and q8_0
//    by the base library and by encode_rows_fast, interleaved, best of three by
//    thread CPU time; the bytes are compared too. Decoding rates of the same
//    types (and F16) show whether decoding limits a run.
// 2. With --reference: a ~1 GB F16 sample model re-encoded by `tevrin-fuse -e
//    'out <type>'` and by `llama-quantize --pure <in> <out> <TYPE> 2`, taking
//    turns, best of two by wall time; then the tensor bytes of both outputs are
//    compared by name.
//
//   bench_encode [--quick] [--dir PATH] [--reference PATH] [--types q4_k,q8_0,...]
//   --quick      small data and model, to check the program itself
//   --reference  the reference quantizer (llama-quantize) for the whole runs
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <ggml.h>

#include "bench/bench_child.h"
#include "bench/bench_temp_dir.h"
#include "fuse/f16_rows.h"
#include "fuse/fast_decode.h"
#include "fuse/fast_encode.h"
#include "model/source_model.h"

namespace {

using namespace tevrin;
using Clock = std::chrono::steady_clock;

struct EncodeType {
    const char* word;       // the recipe's word
    const char* reference;  // the reference quantizer's name
    ggml_type type;
    double target;  // whole-run ratio to reach against the reference
};

const EncodeType kTypes[] = {
    {"q2_k", "Q2_K", GGML_TYPE_Q2_K, 0.35}, {"q3_k", "Q3_K", GGML_TYPE_Q3_K, 0.35},
    {"q4_k", "Q4_K", GGML_TYPE_Q4_K, 0.35}, {"q5_k", "Q5_K", GGML_TYPE_Q5_K, 0.35},
    {"q6_k", "Q6_K", GGML_TYPE_Q6_K, 0.35}, {"q8_0", "Q8_0", GGML_TYPE_Q8_0, 0.60},
};

struct Options {
    bool quick = false;
    std::filesystem::path parent = std::filesystem::temp_directory_path();
    std::string reference;
    std::vector<std::string> types = {"q3_k", "q4_k", "q5_k", "q6_k", "q8_0"};
};

Options parse_options(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            o.quick = true;
        } else if (arg == "--dir" && i + 1 < argc) {
            o.parent = argv[++i];
        } else if (arg == "--reference" && i + 1 < argc) {
            o.reference = argv[++i];
        } else if (arg == "--types" && i + 1 < argc) {
            o.types.clear();
            std::stringstream list(argv[++i]);
            for (std::string word; std::getline(list, word, ',');) {
                o.types.push_back(word);
            }
        } else {
            throw std::invalid_argument(
                "usage: bench_encode [--quick] [--dir PATH] [--reference PATH] [--types LIST]");
        }
    }
    return o;
}

bool wanted(const Options& o, const EncodeType& t) {
    return std::find(o.types.begin(), o.types.end(), t.word) != o.types.end();
}

double thread_cpu_seconds() {
    timespec ts = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void print_load(const char* when) {
    double load[3] = {};
    if (getloadavg(load, 3) == 3) {
        std::printf("[load] %s: load average %.1f %.1f %.1f on %u hardware threads\n", when,
                    load[0], load[1], load[2], std::thread::hardware_concurrency());
    }
}

// ---- in-process rates ----------------------------------------------------------

// Rows of gaussian weights with a scale per row, rounded to F16 values as a
// sample model's are.
std::vector<float> f16_valued_rows(int64_t rows, int64_t row_len) {
    std::mt19937 rng(7);
    std::vector<float> x(size_t(rows * row_len));
    for (int64_t r = 0; r < rows; ++r) {
        const float scale = 0.005f + 0.05f * float(r % 17) / 17.0f;
        std::normal_distribution<float> normal(0.0f, scale);
        for (int64_t i = 0; i < row_len; ++i) {
            x[size_t(r * row_len + i)] = ggml_fp16_to_fp32(ggml_fp32_to_fp16(normal(rng)));
        }
    }
    return x;
}

void run_rates(const Options& o) {
    const int64_t row_len = 4096;
    const int64_t rows = o.quick ? 64 : 2048;
    const std::vector<float> x = f16_valued_rows(rows, row_len);
    const double elements = double(rows * row_len);
    std::printf("\n[encode] %.1f M F16-valued elements, one thread, best of 3 by thread CPU time\n",
                elements / 1e6);
    std::printf("  %-6s %14s %14s %14s %10s\n", "type", "library Mel/s", "vector Mel/s",
                "vector/library", "bytes");
    for (const EncodeType& t : kTypes) {
        const size_t bytes = ggml_row_size(t.type, row_len) * size_t(rows);
        std::vector<uint8_t> lib(bytes);
        std::vector<uint8_t> vec(bytes);
        double lib_best = 1e30;
        double vec_best = 1e30;
        bool covered = true;
        for (int round = 0; round < 3; ++round) {
            double start = thread_cpu_seconds();
            ggml_quantize_chunk(t.type, x.data(), lib.data(), 0, rows, row_len, nullptr);
            lib_best = std::min(lib_best, thread_cpu_seconds() - start);
            start = thread_cpu_seconds();
            covered = encode_rows_fast(t.type, x.data(), vec.data(), rows, row_len);
            vec_best = std::min(vec_best, thread_cpu_seconds() - start);
        }
        if (!covered) {
            std::printf("  %-6s %14.1f %14s\n", t.word, elements / lib_best / 1e6, "not covered");
            continue;
        }
        std::printf("  %-6s %14.1f %14.1f %14.3f %10s\n", t.word, elements / lib_best / 1e6,
                    elements / vec_best / 1e6, vec_best / lib_best,
                    lib == vec ? "same" : "DIFFERENT");
    }

    std::printf("\n[decode] the same elements back to floats, one thread, best of 3\n");
    std::vector<float> back(x.size());
    std::vector<uint8_t> f16(x.size() * 2);
    ggml_fp32_to_fp16_row(x.data(), reinterpret_cast<ggml_fp16_t*>(f16.data()), int64_t(x.size()));
    double best = 1e30;
    for (int round = 0; round < 3; ++round) {
        const double start = thread_cpu_seconds();
        for (int64_t r = 0; r < rows; ++r) {
            f16_row_to_floats(f16.data() + r * row_len * 2, back.data() + r * row_len, row_len);
        }
        best = std::min(best, thread_cpu_seconds() - start);
    }
    std::printf("  %-6s %10.0f Mel/s\n", "f16", elements / best / 1e6);
    std::printf("  %-6s %10s %10s\n", "type", "ggml", "vector");
    for (const EncodeType& t : kTypes) {
        std::vector<uint8_t> encoded(ggml_row_size(t.type, row_len) * size_t(rows));
        ggml_quantize_chunk(t.type, x.data(), encoded.data(), 0, rows, row_len, nullptr);
        std::vector<float> fast(x.size());
        double lib_best = 1e30, vec_best = 1e30;
        bool covered = false;
        for (int round = 0; round < 3; ++round) {  // in turns, like the encoders
            double start = thread_cpu_seconds();
            ggml_get_type_traits(t.type)->to_float(encoded.data(), back.data(), rows * row_len);
            lib_best = std::min(lib_best, thread_cpu_seconds() - start);
            start = thread_cpu_seconds();
            covered = decode_rows_fast(t.type, encoded.data(), fast.data(), rows * row_len);
            vec_best = std::min(vec_best, thread_cpu_seconds() - start);
        }
        if (!covered) {
            std::printf("  %-6s %10.0f %10s Mel/s\n", t.word, elements / lib_best / 1e6, "-");
            continue;
        }
        std::printf(
            "  %-6s %10.0f %10.0f Mel/s  %s\n", t.word, elements / lib_best / 1e6,
            elements / vec_best / 1e6,
            std::memcmp(back.data(), fast.data(), back.size() * 4) == 0 ? "same" : "DIFFERENT");
    }
}

// ---- whole runs ------------------------------------------------------------------

// stdout and stderr of a child both go to `log`.
ChildRun run_child(const std::vector<std::string>& args, const std::string& log) {
    return tevrin::run_child(args, log, log, false);
}

std::string read_text(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> block(size_t(1) << 22);
    while (in.read(block.data(), std::streamsize(block.size())) || in.gcount() > 0) {
    }
}

struct TensorComparison {
    int same = 0;
    int different = 0;
    int other_type = 0;  // stored in another type by one of the two
    int missing = 0;
};

TensorComparison compare_tensors(const std::string& ours, const std::string& theirs) {
    SourceModel a;
    SourceModel b;
    a.open(ours);
    b.open(theirs);
    TensorComparison c;
    for (const auto& [name, i] : a.tensor_index) {
        const auto other = b.tensor_index.find(name);
        if (other == b.tensor_index.end()) {
            ++c.missing;
            continue;
        }
        const int64_t j = other->second;
        if (tensor_type(a, i) != tensor_type(b, j)) {
            ++c.other_type;
            continue;
        }
        const size_t size = tensor_size(a, i);
        const uint8_t* pa = tensor_data(a, i);
        const uint8_t* pb = tensor_data(b, j);
        const bool same = size == tensor_size(b, j) && std::memcmp(pa, pb, size) == 0;
        ++(same ? c.same : c.different);
    }
    return c;
}

void run_whole(const Options& o) {
    const TempDir dir(o.parent);
    const std::string model = (dir.path / "f16.gguf").string();
    const std::string log = (dir.path / "run.log").string();
    const std::vector<std::string> shape =
        o.quick ? std::vector<std::string>{"--width", "512", "--layers", "2", "--vocab", "1024"}
                : std::vector<std::string>{"--width", "2048", "--layers", "8", "--vocab", "16384"};
    std::vector<std::string> make = {TEVRIN_SAMPLE_EXE, "--tokenizer", "--seed", "3", "-o", model};
    make.insert(make.begin() + 1, shape.begin(), shape.end());
    if (run_child(make, log).status != 0) {
        throw std::runtime_error("tevrin-sample failed: " + read_text(log));
    }
    read_whole(model);
    std::printf("\n[whole runs] %.2f GB F16 model, page cache warm, best of 2 by wall time\n",
                double(std::filesystem::file_size(model)) / 1e9);
    std::printf("  tevrin-fuse -e 'out <type>' -o out.gguf f16.gguf\n");
    std::printf("  %s --pure f16.gguf ref.gguf <TYPE> 2\n", o.reference.c_str());
    std::printf("  %-6s %16s %16s %9s %8s %s\n", "type", "fuse wall (cpu)", "ref wall (cpu)",
                "fuse/ref", "target", "tensor bytes");
    for (const EncodeType& t : kTypes) {
        if (!wanted(o, t)) {
            continue;
        }
        const std::string ours = (dir.path / "ours.gguf").string();
        const std::string theirs = (dir.path / "theirs.gguf").string();
        const std::vector<std::string> fuse_args = {
            TEVRIN_FUSE_EXE, "-e", std::string("out ") + t.word, "-o", ours, model};
        const std::vector<std::string> ref_args = {o.reference, "--pure",    model,
                                                   theirs,      t.reference, "2"};
        ChildRun best_fuse{1e30, 0, 0};
        ChildRun best_ref{1e30, 0, 0};
        for (int round = 0; round < 2; ++round) {
            const ChildRun f = run_child(fuse_args, log);
            if (f.status != 0) {
                throw std::runtime_error("tevrin-fuse failed: " + read_text(log));
            }
            best_fuse = f.seconds < best_fuse.seconds ? f : best_fuse;
            const ChildRun r = run_child(ref_args, log);
            if (r.status != 0) {
                throw std::runtime_error("reference quantizer failed: " + read_text(log));
            }
            best_ref = r.seconds < best_ref.seconds ? r : best_ref;
        }
        const TensorComparison c = compare_tensors(ours, theirs);
        const double ratio = best_fuse.seconds / best_ref.seconds;
        std::printf(
            "  %-6s %7.2f (%6.2f) %7.2f (%6.2f) %9.3f %5.2f %s  same %d, different %d, "
            "other type %d, missing %d\n",
            t.word, best_fuse.seconds, best_fuse.cpu_seconds, best_ref.seconds,
            best_ref.cpu_seconds, ratio, t.target, ratio <= t.target ? "met   " : "MISSED", c.same,
            c.different, c.other_type, c.missing);
        std::filesystem::remove(ours);
        std::filesystem::remove(theirs);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // progress shows when written to a file
    try {
        const Options o = parse_options(argc, argv);
        print_load("start");
        run_rates(o);
        if (!o.reference.empty()) {
            run_whole(o);
        }
        print_load("end");
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_encode: %s\n", e.what());
        return 1;
    }
}
