// The progress line on stderr: "\r%3d%% %-60s", rewritten only when the run
// crosses a 5 % step, so a log file gets about twenty lines per run.
//
// Threads: called on the fusion's calling thread only.
#pragma once

#include <cstdint>
#include <cstdio>

#include "fuse/fuse.h"

namespace tevrin {

struct ProgressPrinter {
    int32_t last = -1;  // last shown percentage
    FILE* stream = stderr;
};

void print_progress(ProgressPrinter& printer, const FuseProgress& progress);

}  // namespace tevrin
