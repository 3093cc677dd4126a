// The row pipeline: brings one plan's bytes into the output stream.
//
// The rows go in spans of the same sources (row_spans: one span, unless a donor
// is aligned on a shared vocabulary). A span that one source gives in the output
// type is copied byte for byte. Any other is cut into chunks of at most kChunkElements elements
// (one row if a row is longer), and each chunk into one range of rows per thread. A worker takes
// its range in blocks of at most kBlockElements elements: it decodes the block of every active
// source, blends it (a single source is taken as it is), counts the values that are not finite
// and encodes it into the chunk's output rows, so the floats never leave its cache. The calling
// thread then writes the encoded chunk and releases the chunk's source pages. Output bytes
// depend only on the sources, the plan, the seed and each row's number, never on the cuts.
//
// Called on the driver's thread only; each worker touches its own blocks of the
// buffers and its own rows of the encoded chunk.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "fuse/active_sources.h"
#include "fuse/fuse.h"
#include "fuse/output_stream.h"
#include "fuse/tensor_plan.h"

namespace tevrin {

// Elements per chunk: the rows decoded, blended and encoded between two writes.
inline constexpr int64_t kChunkElements = 4194304;

// Elements per block: the rows a worker takes through decoding, blending and
// encoding at once, while they stay in its cache (64 KiB of floats per buffer).
inline constexpr int64_t kBlockElements = 16384;

// Rows per chunk of a tensor: as many as fit kChunkElements, at least one.
int64_t chunk_rows(int64_t row_len, int64_t rows);

// Workers of a chunk of `chunk` rows on `threads` threads: one per thread, at
// most one per row.
int32_t chunk_workers(int32_t threads, int64_t chunk);

// Rows of each worker's range of a chunk (the last range may hold fewer).
int64_t range_rows(int32_t threads, int64_t chunk);

// Rows per block of a range of `rows` rows: as many as fit kBlockElements, at
// least one.
int64_t block_rows(int64_t row_len, int64_t rows);

// Floats of one source's block buffer over all workers of the largest chunk of
// a tensor of `rows` rows: what the run sizes and the plan preview reports.
uint64_t worker_block_floats(int32_t threads, int64_t row_len, int64_t rows);

// Scratch of the pipeline; lives for a whole run so memory is kept between tensors.
// Worker w's block starts at w times the block's elements.
struct RowBuffers {
    std::vector<std::vector<float>> source_floats;  // per source, a decoded block per worker
    std::vector<float> blended;                     // a blended block per worker
    std::vector<uint8_t> encoded;                   // the encoded rows of a chunk
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
