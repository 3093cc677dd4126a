#include "cli/progress_printer.h"

namespace tevrin {

void print_progress(ProgressPrinter& printer, const FuseProgress& progress) {
    const int32_t percent = int32_t(progress.fraction * 100.0f);
    if (percent / 5 == printer.last / 5) {
        return;
    }
    printer.last = percent;
    std::fprintf(printer.stream, "\r%3d%% %-60s", percent, progress.label.c_str());
}

}  // namespace tevrin
