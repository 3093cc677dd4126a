#include "cli/command_line.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "cli/compare_command.h"
#include "cli/help_text.h"
#include "cli/plan_report.h"
#include "cli/progress_printer.h"
#include "fuse/fuse.h"
#include "fuse/output_parts.h"
#include "fuse/output_stream.h"
#include "model/gguf_handle.h"
#include "model/inspect.h"
#include "model/shard_names.h"
#include "recipe/random_recipe.h"

namespace tevrin {

const char* const kUsageLine =
    "usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...\n";
const char* const kCompareUsageLine =
    "usage: tevrin-fuse --compare [--json] [--svg out.svg] reference src... (2 to 8 sources)\n";

namespace {

// The whole file, or an empty text with `readable` false when it cannot be
// opened or is a directory.
std::string read_whole_file(const std::string& path, bool& readable) {
    std::ifstream in(path, std::ios::binary);
    struct stat st = {};
    readable = in.is_open() && stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::vector<std::string> scan_warnings(const CommandLine& cl) {
    if (cl.unreadable_recipe.empty() || cl.seed >= 0) {
        return {};
    }
    return {"cannot read recipe file " + cl.unreadable_recipe + ": the recipe is empty"};
}

int usage_failure(const char* line = kUsageLine) {
    std::fputs(line, stderr);
    return 1;
}

// A source mapping that shrinks under the run (another process truncates the
// file) or hits a read error raises SIGBUS at the next access, and the run cannot
// go on. The handler ends it the way a failed run ends: the failure line, no
// unfinished file left, status 2.
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
    discard_output_from_signal();
    _exit(2);
}

// Set by the first SIGINT, SIGTERM or SIGHUP of a run; the run stops at its next
// chunk or tensor. A second signal means the user will not wait.
std::atomic<bool> g_cancel{false};
static_assert(std::atomic<bool>::is_always_lock_free, "read and written in a signal handler");

void on_interrupt(int signal_number) {
    if (g_cancel.exchange(true)) {
        discard_output_from_signal();
        std::signal(signal_number, SIG_DFL);
        std::raise(signal_number);
    }
}

void catch_interrupts() {
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    action.sa_flags = SA_RESTART;  // writes and waits go on until the run looks at the flag
    sigemptyset(&action.sa_mask);
    for (const int s : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(s, &action, nullptr);
    }
}

// A whole number from 0 to 1024, nothing else.
bool read_thread_count(const std::string& text, int& threads) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || at != end || value < 0 || value > 1024) {
        return false;
    }
    threads = value;
    return true;
}

// A whole number of tensors per shard, from 1 up, nothing else.
bool read_shard_tensors(const std::string& text, int64_t& count) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || at != end || value < 1) {
        return false;
    }
    count = value;
    return true;
}

int run_fusion(const CommandLine& cl) {
    std::printf("---- recipe ----\n%s\n----------------\n", cl.recipe_text.c_str());
    std::fflush(stdout);
    std::signal(SIGBUS, on_bus_error);
    catch_interrupts();
    ProgressPrinter printer;
    const FuseResult r = fuse(
        cl.sources, cl.recipe_text, cl.output_path, cl.threads, &g_cancel,
        [&printer](const FuseProgress& p) { print_progress(printer, p); },
        FuseOptions{cl.imatrix_path, cl.split});
    std::fputc('\n', stderr);
    for (const std::string& warning : r.warnings) {
        std::fprintf(stderr, "warning: %s\n", warning.c_str());
    }
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
        const bool fusion_option = a == "-r" || a == "-e" || a == "--random" || a == "--type" ||
                                   a == "-o" || a == "--dry" || a == "--split-max-size" ||
                                   a == "--split-max-tensors";
        cl.fusion_options |= fusion_option && (has_value || a == "--dry");
        if (a == "--inspect" && has_value) {
            cl.inspect = true;
            cl.inspect_path = args[i + 1];
            return cl;
        } else if (a == "--tensors" && has_value) {
            cl.tensors = true;
            cl.inspect_path = args[i + 1];
            return cl;
        } else if (a == "-r" && has_value) {
            bool readable = true;
            cl.recipe_text = read_whole_file(args[++i], readable);
            cl.unreadable_recipe = readable ? "" : args[i];
        } else if (a == "-e" && has_value) {
            cl.recipe_text = args[++i];
            cl.unreadable_recipe.clear();
        } else if (a == "--random" && has_value) {
            cl.seed = std::strtoll(args[++i].c_str(), nullptr, 10);
        } else if (a == "--type" && has_value) {
            cl.out_type = args[++i];
        } else if (a == "--imatrix" && has_value) {
            cl.imatrix_path = args[++i];
        } else if (a == "-o" && has_value) {
            cl.output_path = args[++i];
        } else if (a == "--split-max-size" && has_value) {
            const auto bytes = parse_byte_size(args[++i]);
            cl.split.max_bytes = bytes.value_or(0);
            if (!bytes) {
                cl.usage_error = "invalid split size '" + args[i] + "'";
            }
        } else if (a == "--split-max-tensors" && has_value) {
            if (!read_shard_tensors(args[++i], cl.split.max_tensors)) {
                cl.usage_error = "invalid tensor count '" + args[i] + "'";
            }
        } else if (a == "--dry") {
            cl.dry = true;
        } else if (a == "-h" || a == "--help") {
            cl.help = true;
            return cl;
        } else if (a == "--version") {
            cl.version = true;
            return cl;
        } else if ((a == "-t" || a == "--threads") && has_value) {
            if (!read_thread_count(args[++i], cl.threads)) {
                cl.usage_error = "invalid thread count '" + args[i] + "'";
            }
        } else if (a == "--plan") {
            cl.plan = true;
        } else if (a == "--json") {
            cl.json = true;
        } else if (a == "--compare") {
            cl.compare = true;
        } else if (a == "--svg" && has_value) {
            cl.svg_path = args[++i];
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
    if (cl.inspect || cl.tensors) {
        std::printf("%s\n", inspect_json(cl.inspect_path, cl.tensors).c_str());
        return 0;
    }
    if (cl.help) {
        std::fputs(help_text(), stdout);
        return 0;
    }
    if (cl.version) {
        std::fputs(version_text().c_str(), stdout);
        return 0;
    }
    if (!cl.usage_error.empty()) {
        std::fprintf(stderr, "%s\n", cl.usage_error.c_str());
        return usage_failure(cl.compare ? kCompareUsageLine : kUsageLine);
    }
    if (cl.compare) {
        if (cl.fusion_options || cl.plan || cl.sources.size() < 2 || cl.sources.size() > 8) {
            return usage_failure(kCompareUsageLine);
        }
        std::signal(SIGBUS, on_bus_error);
        catch_interrupts();
        return run_compare(cl.sources, cl.threads, cl.json, cl.svg_path, &g_cancel);
    }
    if ((cl.output_path.empty() && !cl.dry && !cl.plan) || cl.sources.empty()) {
        return usage_failure();
    }
    if (cl.seed >= 0) {
        const int32_t layers =
            report_layer_count(inspect_json(first_shard_path(cl.sources[0]), false));
        cl.recipe_text =
            random_recipe(int32_t(cl.sources.size()), layers, uint64_t(cl.seed), cl.out_type);
    }
    if (cl.plan) {
        return print_plan_report(cl.sources, cl.recipe_text, cl.json, scan_warnings(cl),
                                 cl.threads);
    }
    if (cl.dry) {
        std::printf("%s", cl.recipe_text.c_str());
        return 0;
    }
    print_run_warnings(cl.sources, cl.recipe_text, scan_warnings(cl));
    return run_fusion(cl);
}

}  // namespace tevrin
