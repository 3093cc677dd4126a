// A run without its output: opens the sources, parses the recipe and plans every
// tensor with the very functions a run calls (parse_recipe, plan_run,
// make_output_metadata, add_tensor_records, active_sources, the encode / decode
// checks), in the run's order, so it fails where the run would fail, with the
// run's message, and every value it reports is the one the run uses. It reads
// headers only; no tensor data, no output file.
//
// What it cannot see: the output path (never opened), data-dependent failures
// (a value the grid-searched types cannot encode), a source changed in between.
//
// Driver thread only; the sources stay open while the preview lives.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuse/active_sources.h"
#include "fuse/plan_run.h"

namespace tevrin {

struct TensorPreview {
    ActiveSources active;     // the sources decoded and the MethodSpec they are blended with
    bool copied = false;      // the bytes are copied unchanged from active.single
    uint64_t bytes_read = 0;  // source bytes the run reads for it
    uint64_t bytes_out = 0;   // its data in the output, before the alignment fill
};

// The run's memory at its peak, by part. The run keeps its buffers between
// tensors, so each buffer stands at its largest size over all tensors.
struct MemoryEstimate {
    uint64_t source_floats = 0;  // per source, a block of decoded floats per worker thread
    uint64_t blended = 0;        // a block of blended floats per worker thread
    uint64_t encoded = 0;        // one chunk of encoded output rows
    uint64_t stream_buffer = 0;  // the output stream's buffer
    uint64_t header = 0;         // the metadata block and the tensor records
    uint64_t mapped_chunk = 0;   // source pages of the largest chunk, until released
    uint64_t total() const;
};

struct RunPreview {
    bool ok = false;
    std::string message;  // as the run's summary: "ok", the notes, or the failure
    std::vector<std::string> warnings;
    SourceList sources;  // as opened, base first
    Recipe recipe;
    RunPlan run;
    std::vector<TensorPreview> tensors;  // one per plan, up to a failing tensor
    uint64_t header_bytes = 0;           // the metadata block of the output
    uint64_t output_bytes = 0;           // the whole output file
    uint64_t bytes_read = 0;
    int64_t params = 0;
    int64_t fallback = 0;
    MemoryEstimate memory;
};

// Never throws a standard exception: a failure comes back in ok / message.
// `threads` is the run's, resolved as a run resolves it (0: every core); only the
// memory estimate depends on it.
RunPreview preview_run(const std::vector<std::string>& source_paths, const std::string& recipe_text,
                       int threads = 0);

}  // namespace tevrin
