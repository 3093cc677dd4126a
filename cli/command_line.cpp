#include "cli/command_line.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "cli/progress_printer.h"
#include "fuse/fuse.h"
#include "model/gguf_handle.h"
#include "model/inspect.h"
#include "recipe/random_recipe.h"

namespace tevrin {

const char* const kUsageLine =
    "usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...\n";

namespace {

std::string read_whole_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

int usage_failure() {
    std::fputs(kUsageLine, stderr);
    return 1;
}

// The output path of the run under way, for the bus-error handler.
const char* volatile g_run_output = nullptr;

// A source mapping that shrinks under the run (another process truncates the
// file) or hits a read error raises SIGBUS at the next access, and the run cannot
// go on. The handler ends it the way a failed run ends: the failure line, no
// output file, status 2. Tensor bytes are read only after the output is opened,
// so a regular file at the path is one this run created or truncated.
void on_bus_error(int) {
    static const char message[] =
        "FAILED: source data unreadable (a source file cut short during the run?)\n";
    static std::atomic<bool> entered{false};
    if (entered.exchange(true)) {  // another worker got there first and is ending it
        for (;;) {
            pause();
        }
    }
    if (write(STDERR_FILENO, "\n", 1) < 0 ||
        write(STDOUT_FILENO, message, sizeof message - 1) < 0) {
        // nothing more can be said
    }
    struct stat st = {};
    const char* path = g_run_output;
    if (path != nullptr && lstat(path, &st) == 0 && S_ISREG(st.st_mode)) {
        unlink(path);
    }
    _exit(2);
}

int run_fusion(const CommandLine& cl) {
    std::printf("---- recipe ----\n%s\n----------------\n", cl.recipe_text.c_str());
    std::fflush(stdout);
    g_run_output = cl.output_path.c_str();
    std::signal(SIGBUS, on_bus_error);
    ProgressPrinter printer;
    const FuseResult r = fuse(cl.sources, cl.recipe_text, cl.output_path, 0, nullptr,
                              [&printer](const FuseProgress& p) { print_progress(printer, p); });
    std::fputc('\n', stderr);
    std::printf(
        "%s: %s\ntensors=%lld params=%lld fallback=%lld layers=%lld bytes=%llu time=%.1fs\n",
        r.ok ? "OK" : "FAILED", r.message.c_str(), (long long)r.tensors, (long long)r.params,
        (long long)r.fallback, (long long)r.layers, (unsigned long long)r.bytes, r.seconds);
    return r.ok ? 0 : 2;
}

}  // namespace

CommandLine scan_command_line(const std::vector<std::string>& args) {
    CommandLine cl;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        const bool has_value = i + 1 < args.size();
        if (a == "--inspect" && has_value) {
            cl.inspect = true;
            cl.inspect_path = args[i + 1];
            return cl;
        } else if (a == "-r" && has_value) {
            cl.recipe_text = read_whole_file(args[++i]);
        } else if (a == "-e" && has_value) {
            cl.recipe_text = args[++i];
        } else if (a == "--random" && has_value) {
            cl.seed = std::strtoll(args[++i].c_str(), nullptr, 10);
        } else if (a == "--type" && has_value) {
            cl.out_type = args[++i];
        } else if (a == "-o" && has_value) {
            cl.output_path = args[++i];
        } else if (a == "--dry") {
            cl.dry = true;
        } else {
            cl.sources.push_back(a);
        }
    }
    return cl;
}

int32_t report_layer_count(const std::string& report) {
    static const std::string key = "\"n_layer\":\"";
    const size_t at = report.find(key);
    if (at == std::string::npos) {
        return 16;
    }
    return int32_t(std::strtol(report.c_str() + at + key.size(), nullptr, 10));
}

int run_command_line(int argc, char** argv) {
    silence_ggml_log();
    // An output FIFO or a stdout pipe whose reader has gone would otherwise kill the
    // process without a word; ignored, it turns into a write error the run reports.
    std::signal(SIGPIPE, SIG_IGN);
    if (argc < 2) {
        return usage_failure();
    }
    CommandLine cl = scan_command_line(std::vector<std::string>(argv + 1, argv + argc));
    if (cl.inspect) {
        std::printf("%s\n", inspect_json(cl.inspect_path, false).c_str());
        return 0;
    }
    if ((cl.output_path.empty() && !cl.dry) || cl.sources.empty()) {
        return usage_failure();
    }
    if (cl.seed >= 0) {
        const int32_t layers = report_layer_count(inspect_json(cl.sources[0], false));
        cl.recipe_text =
            random_recipe(int32_t(cl.sources.size()), layers, uint64_t(cl.seed), cl.out_type);
    }
    if (cl.dry) {
        std::printf("%s", cl.recipe_text.c_str());
        return 0;
    }
    return run_fusion(cl);
}

}  // namespace tevrin
