// Times the inspection report on two generated models of about 1 GB and 3 GB with
// the same number of keys and tensors. The report reads the header only, so both
// times should be far below 100 ms and within 1.2x of each other.
//
//   bench_inspect [repetitions]     (default 51)
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/inspect.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct ScratchDir {
    std::string path;
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "tevrin-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        path = pattern;
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

struct Model {
    const char* label;
    const char* shape;  // generator options; both have 16 layers, so equal headers
    std::string path;
    double generate_seconds = 0;
    std::vector<double> times;
};

void generate(Model& m) {
    const std::string command =
        std::string(TEVRIN_SAMPLE_EXE) + " " + m.shape + " -o '" + m.path + "'";
    const auto start = Clock::now();
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("generator failed: " + command);
    }
    m.generate_seconds = seconds_since(start);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double file_gb(const std::string& path) {
    struct stat st = {};
    stat(path.c_str(), &st);
    return double(st.st_size) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int reps = argc > 1 ? std::max(1, std::atoi(argv[1])) : 51;
        ScratchDir dir;
        Model models[] = {
            {"1 GB",
             "--layers 16 --width 1536 --ffn 4096 --vocab 32000",
             dir.path + "/one.gguf",
             0,
             {}},
            {"3 GB",
             "--layers 16 --width 2560 --ffn 6912 --vocab 32000",
             dir.path + "/three.gguf",
             0,
             {}},
        };
        for (auto& m : models) {
            generate(m);
            std::printf("%s model: %.2f GB, generated in %.2f s\n", m.label, file_gb(m.path),
                        m.generate_seconds);
        }
        // One untimed report each, then interleaved runs so that drift in the machine's
        // load hits both models alike.
        for (auto& m : models) {
            tevrin::inspect_json(m.path, false);
        }
        for (int r = 0; r < reps; ++r) {
            for (auto& m : models) {
                const auto start = Clock::now();
                const std::string doc = tevrin::inspect_json(m.path, false);
                m.times.push_back(seconds_since(start));
                if (doc.rfind("{\"ok\":true", 0) != 0) {
                    throw std::runtime_error("report failed for " + m.path);
                }
            }
        }
        const double a = median(models[0].times) * 1e3, b = median(models[1].times) * 1e3;
        const double ratio = std::max(a, b) / std::min(a, b);
        std::printf("inspect_json median of %d: 1 GB %.3f ms, 3 GB %.3f ms, ratio %.3f\n", reps, a,
                    b, ratio);
        const bool ok = a < 100 && b < 100 && ratio <= 1.2;
        std::printf("%s\n", ok ? "within target (< 100 ms, ratio <= 1.2)" : "OVER TARGET");
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_inspect: %s\n", e.what());
        return 1;
    }
}
