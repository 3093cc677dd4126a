// The row pipeline: brings one plan's bytes into the output stream.
//
// The rows go in spans of the same sources (row_spans: one span, unless a donor
// is aligned on a shared vocabulary). A span that one source gives in the output
// type is copied byte for byte. Any other is cut into chunks of at most kChunkElements elements
// (one row if a row is longer); per chunk each active source is decoded to floats on all threads,
// then rows are blended and encoded on the same threads, and the encoded chunk is written by the
// calling thread. Output bytes depend only on the sources, the plan, the seed and each row's
// number.
//
// Called on the driver's thread only; workers touch disjoint row ranges of the
// buffers between parallel_rows calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "fuse/active_sources.h"
#include "fuse/fuse.h"
#include "fuse/output_stream.h"
#include "fuse/tensor_plan.h"

namespace tevrin {

// Elements per row buffer of a chunk.
inline constexpr int64_t kChunkElements = 4194304;

// Rows per chunk of a tensor: as many as fit kChunkElements, at least one.
int64_t chunk_rows(int64_t row_len, int64_t rows);

// Scratch of the pipeline; lives for a whole run so memory is kept between tensors.
struct RowBuffers {
    std::vector<std::vector<float>> source_floats;  // one list per source
    std::vector<float> blended;
    std::vector<uint8_t> encoded;
};

// What write_tensor needs of the run; owned by the driver.
struct WriteContext {
    const SourceList& sources;
    uint64_t seed;    // the recipe's seed
    int32_t threads;  // 1 or more
    const std::atomic<bool>* cancel;
    const ProgressFn& progress;
    uint64_t total_source_bytes;  // of the whole run, for progress fractions
    OutputStream& out;
    RowBuffers& buffers;
};

struct TensorWrite {
    uint64_t read = 0;       // source bytes read
    int64_t non_finite = 0;  // NaN and infinite values among the encoded floats
};

// Writes the tensor's bytes (no alignment fill); `read_before` is what earlier
// tensors read, for progress. Fails with "base is missing tensor <name>",
// "cancelled", "write error (disk full?)" (checked after every chunk),
// "cannot dequantize type <type>", "cannot quantize to type <type>" or what
// encode_rows fails with.
TensorWrite write_tensor(const WriteContext& ctx, const TensorPlan& plan, uint64_t read_before);

// True when write_tensor copies the tensor's bytes unchanged: one source gives
// it, stored in the output type.
bool copies_unchanged(const SourceList& sources, const TensorPlan& plan,
                      const ActiveSources& active);

// The fraction behind the progress events: done / total in single precision,
// or `if_empty` when total is 0.
float progress_fraction(uint64_t done, uint64_t total, float if_empty);

}  // namespace tevrin
