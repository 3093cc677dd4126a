#include "cli/compare_command.h"

#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>

#include "cli/compare_report.h"
#include "cli/compare_svg.h"
#include "cli/progress_printer.h"
#include "fuse/compare.h"
#include "fuse/output_stream.h"

namespace tevrin {

namespace {

bool same_file(const std::string& a, const std::string& b) {
    struct stat sa = {}, sb = {};
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// The picture is written like a model: replaced only when complete.
void write_text_file(const std::string& path, const std::string& text) {
    write_output_file(path, [&](OutputStream& out) { write_bytes(out, text.data(), text.size()); });
}

}  // namespace

int run_compare(const std::vector<std::string>& sources, int threads, bool json,
                const std::string& svg_path, const std::atomic<bool>* cancel) {
    ProgressPrinter printer;
    bool shown = false;
    try {
        for (const auto& source : sources) {
            if (!svg_path.empty() && same_file(svg_path, source)) {
                throw std::runtime_error("output would overwrite source " + source);
            }
        }
        const Comparison comparison =
            compare_sources(sources, threads, cancel, [&](const FuseProgress& p) {
                shown = true;
                print_progress(printer, p);
            });
        std::fputc('\n', stderr);
        shown = false;
        if (!svg_path.empty()) {
            write_text_file(svg_path, compare_svg(comparison));
        }
        const std::string text = json ? compare_json_lines(comparison) : compare_table(comparison);
        std::fwrite(text.data(), 1, text.size(), stdout);
        return std::fflush(stdout) == 0 ? 0 : 2;
    } catch (const std::exception& e) {
        if (shown) {
            std::fputc('\n', stderr);
        }
        std::printf("FAILED: %s\n", e.what());
        return 2;
    }
}

}  // namespace tevrin
