// One fusion run: source paths and recipe text in, one finished GGUF file out.
//
// fuse() never throws a standard exception: every failure comes back in the
// FuseResult with its one-line message. The output is written to a temporary
// file beside the output path and renamed over it only on success (see
// fuse/output_stream.h), so whatever the path held before survives every failure.
//
// Threads: call from one thread; the run starts and joins its own workers.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tevrin {

struct FuseProgress {
    float fraction = 0.0f;  // 0.0 to 1.0, never falls during a run
    std::string label;      // "Uncorking sources", "Blending <tensor>", "Corked"
};

struct FuseResult {
    bool ok = false;
    std::string message;      // "ok", the sorted notes joined by "; ", or the failure
    std::string output_path;  // set on success only
    int64_t tensors = 0;      // output tensors completely written
    int64_t params = 0;       // elements over all planned output tensors
    int64_t fallback = 0;     // planned tensors that lost a donor or fell back to the base
    int64_t layers = 0;       // output layer count; set on success only
    uint64_t bytes = 0;       // output file size; set on success only
    double seconds = 0.0;     // wall time by the monotonic clock, success or not
    std::vector<std::string> warnings;  // tensors whose blended values are not all finite
};

// How to cut the output into shards; both 0 (the default) writes one file.
struct SplitLimits {
    uint64_t max_bytes = 0;   // tensor data per shard, each tensor padded to the alignment
    int64_t max_tensors = 0;  // tensors per shard
};

using ProgressFn = std::function<void(const FuseProgress&)>;

// Calls `progress` with the event when it is set.
void emit_progress(const ProgressFn& progress, float fraction, const std::string& label);

// Settings of a run beyond the sources and the recipe.
struct FuseOptions {
    // An importance matrix (either file form of the inference tree's imatrix tool);
    // empty for none. Read after the recipe, before the output is opened.
    std::string imatrix_path;
    SplitLimits split;  // no limit: one output file
};

// `threads` of 0 or less uses the hardware concurrency. `cancel` may be null; a
// true value stops the run at the next tensor or chunk boundary with "cancelled".
// `progress` may be empty; it is always called on the calling thread. With a
// limit in `options.split`, the output is written as shards named from `output_path`
// (out.gguf gives out-00001-of-0000N.gguf, ...), `output_path` of the result
// names the first, `bytes` counts all of them, and a failure removes every shard.
FuseResult fuse(const std::vector<std::string>& sources, const std::string& recipe_text,
                const std::string& output_path, int threads, const std::atomic<bool>* cancel,
                const ProgressFn& progress, const FuseOptions& options = {});

}  // namespace tevrin
