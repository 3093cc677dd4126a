// The row pipeline: brings one plan's bytes and alignment fill into the output.
//
// A tensor with one active source in the output type is copied byte for byte.
// Any other is cut into chunks of at most 4194304 elements; per chunk each source
// is decoded to floats on all threads, then rows are blended and encoded on the
// same threads, and the encoded chunk is written by the calling thread. Output
// bytes depend only on the sources, the plan, the seed and each row's number.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <vector>

#include "fuse/fuse.h"
#include "fuse/tensor_plan.h"

namespace tevrin {

// Scratch of the pipeline; lives for a whole run so memory is kept between tensors.
struct RowBuffers {
    std::vector<std::vector<float>> source_floats;  // one list per source
    std::vector<float> blended;
    std::vector<uint8_t> encoded;
};

// What write_tensor needs of the run; owned by the driver.
struct WriteContext {
    const SourceList& sources;
    uint64_t seed;  // the recipe's seed
    int threads;    // 1 or more
    const std::atomic<bool>* cancel;
    const ProgressFn& progress;
    FILE* out;
    uint64_t alignment;
    RowBuffers& buffers;
    uint64_t& written_bytes;
    uint64_t& done_source_bytes;
    uint64_t total_source_bytes;
};

// Fails with "base is missing tensor <name>", "cancelled",
// "cannot dequantize type <type>", "cannot quantize to type <type>", or, for the
// grid-searched types iq3_xxs, iq3_s, iq2_s and iq1_m, "cannot quantize to type
// <type>: value out of range" for a NaN or a value beyond 1e9 in magnitude.
void write_tensor(WriteContext& ctx, const TensorPlan& plan);

// Runs body(lo, hi) over equal contiguous ranges of [0, rows) on up to `workers`
// new threads and joins them all; with one worker, on the calling thread. A
// failure on any worker is rethrown on the calling thread after all are joined.
void parallel_rows(int32_t workers, int64_t rows,
                   const std::function<void(int64_t, int64_t)>& body);

// The fraction behind the progress events: done / total in single precision,
// or `if_empty` when total is 0.
float progress_fraction(uint64_t done, uint64_t total, float if_empty);

}  // namespace tevrin
