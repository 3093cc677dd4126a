#include "fuse/run_preview.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include <ggml.h>

#include "fuse/decode_rows.h"
#include "fuse/encode_rows.h"
#include "fuse/output_metadata.h"
#include "fuse/output_stream.h"
#include "fuse/parallel_rows.h"
#include "fuse/plan_run.h"
#include "fuse/plan_warnings.h"
#include "fuse/tensor_records.h"
#include "fuse/write_tensor.h"
#include "model/gguf_handle.h"
#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

struct BufferSizes {
    std::vector<uint64_t> source_floats;
    uint64_t blended = 0, encoded = 0, mapped_chunk = 0;
};

size_t source_row_bytes(const SourceList& sources, const TensorPlan& plan, int32_t s) {
    const SourceModel& src = *sources[size_t(s)];
    return ggml_row_size(ggml_type(tensor_type(src, plan.source_tensors[size_t(s)])), plan.ne[0]);
}

// What write_tensor reads and writes for one plan, span by span, with the checks
// it makes before its first chunk, in its order; grows `sizes` to the buffers
// it would size. A donor aligned on a shared vocabulary is read for its
// span's rows only.
TensorPreview preview_tensor(const SourceList& sources, const TensorPlan& plan, int32_t threads,
                             BufferSizes& sizes) {
    TensorPreview preview;
    const int64_t row_len = plan.ne[0];
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    const size_t row_bytes = ggml_row_size(ggml_type(plan.out_type), row_len);
    preview.bytes_out = uint64_t(rows) * row_bytes;
    preview.active = active_sources(plan);
    const std::vector<RowSpan> spans = row_spans(plan);
    if (spans.size() == 1 && copies_unchanged(sources, plan, spans[0].active)) {
        preview.copied = true;
        preview.bytes_read = source_row_bytes(sources, plan, spans[0].active.single) * rows;
        return preview;
    }
    if (preview.bytes_out == 0) {
        return preview;
    }
    check_encodable(plan.out_type, plan.importance != nullptr);
    for (const RowSpan& span : spans) {
        for (const int32_t s : span.active.sources) {
            check_decodable(
                ggml_type(tensor_type(*sources[size_t(s)], plan.source_tensors[size_t(s)])));
        }
    }
    const int64_t per_chunk = chunk_rows(row_len, rows);
    const uint64_t block_floats = worker_block_floats(threads, row_len, rows) * sizeof(float);
    for (const RowSpan& span : spans) {
        const int64_t span_rows = span.end - span.first;
        if (copies_unchanged(sources, plan, span.active)) {
            preview.bytes_read += source_row_bytes(sources, plan, span.active.single) * span_rows;
            continue;
        }
        uint64_t mapped = 0;
        for (const int32_t s : span.active.sources) {
            const size_t src_row = source_row_bytes(sources, plan, s);
            preview.bytes_read += uint64_t(src_row) * uint64_t(span_rows);
            mapped += uint64_t(src_row) * uint64_t(std::min(per_chunk, span_rows));
            sizes.source_floats[size_t(s)] = std::max(sizes.source_floats[size_t(s)], block_floats);
        }
        sizes.mapped_chunk = std::max(sizes.mapped_chunk, mapped);
    }
    sizes.blended = std::max(sizes.blended, block_floats);
    sizes.encoded = std::max(sizes.encoded, uint64_t(per_chunk) * row_bytes);
    return preview;
}

uint64_t padded(uint64_t size, uint64_t alignment) {
    return (size + alignment - 1) / alignment * alignment;
}

void preview_tensors(RunPreview& preview, gguf_context* out, int32_t threads) {
    BufferSizes sizes;
    sizes.source_floats.assign(preview.sources.size(), 0);
    const uint64_t alignment = gguf_get_alignment(out);
    preview.output_bytes = preview.header_bytes;
    for (const TensorPlan& plan : preview.run.plans) {
        preview.tensors.push_back(preview_tensor(preview.sources, plan, threads, sizes));
        preview.bytes_read += preview.tensors.back().bytes_read;
        preview.output_bytes += padded(preview.tensors.back().bytes_out, alignment);
    }
    MemoryEstimate& memory = preview.memory;
    for (const uint64_t floats : sizes.source_floats) {
        memory.source_floats += floats;
    }
    memory.blended = sizes.blended;
    memory.encoded = sizes.encoded;
    memory.mapped_chunk = sizes.mapped_chunk;
}

// "recipe line N: ..." warnings in line order; the order within a line stays.
void sort_by_line(std::vector<std::string>& warnings) {
    const auto line = [](const std::string& warning) {
        return std::strtoll(warning.c_str() + warning.find_first_of("0123456789"), nullptr, 10);
    };
    std::stable_sort(warnings.begin(), warnings.end(),
                     [&](const std::string& a, const std::string& b) { return line(a) < line(b); });
}

}  // namespace

uint64_t MemoryEstimate::total() const {
    return source_floats + blended + encoded + stream_buffer + header + mapped_chunk;
}

RunPreview preview_run(const std::vector<std::string>& source_paths, const std::string& recipe_text,
                       int threads) {
    RunPreview preview;
    try {
        silence_ggml_log();
        check_source_count(source_paths);
        open_sources(source_paths, preview.sources);
        preview.recipe =
            parse_recipe(recipe_text, int32_t(preview.sources.size()), &preview.warnings);
        preview.run = plan_run(preview.recipe, preview.sources);
        const std::vector<std::string> more = plan_warnings(preview.recipe, preview.run);
        preview.warnings.insert(preview.warnings.end(), more.begin(), more.end());
        sort_by_line(preview.warnings);

        const GgufHandle out =
            make_output_metadata(preview.sources, preview.recipe, recipe_text, preview.run.notes);
        const GgmlHandle records = add_tensor_records(out.get(), preview.run.plans);
        for (const TensorPlan& plan : preview.run.plans) {
            preview.params += plan.ne[0] * plan.ne[1] * plan.ne[2] * plan.ne[3];
            preview.fallback += plan.fallback ? 1 : 0;
        }
        preview.header_bytes = gguf_get_meta_size(out.get());
        preview.memory.stream_buffer = kStreamBufferBytes;
        preview.memory.header =
            preview.header_bytes + ggml_tensor_overhead() * preview.run.plans.size() + 1024;
        preview_tensors(preview, out.get(), resolve_threads(threads));
        preview.ok = true;
        preview.message = preview.run.notes.empty() ? "ok" : join_notes(preview.run.notes);
    } catch (const std::exception& e) {
        preview.ok = false;
        preview.message = e.what();
    }
    return preview;
}

}  // namespace tevrin
