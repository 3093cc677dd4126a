#include "fuse/write_tensor.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <stdexcept>
#include <string>

#include <ggml.h>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/active_sources.h"
#include "fuse/decode_rows.h"
#include "fuse/encode_rows.h"
#include "fuse/parallel_rows.h"

namespace tevrin {
namespace {

void check_cancel(const WriteContext& ctx) {
    if (ctx.cancel != nullptr && ctx.cancel->load()) {
        throw std::runtime_error("cancelled");
    }
}

// Decodes rows [start, start + n) of every active source into its buffer; returns
// the source bytes read.
uint64_t decode_chunk(const WriteContext& ctx, const TensorPlan& plan,
                      const std::vector<int32_t>& active, int64_t start, int64_t n,
                      std::vector<const float*>& decoded) {
    const int64_t row_len = plan.ne[0];
    const int32_t workers = int32_t(std::min<int64_t>(ctx.threads, n));
    uint64_t read = 0;
    decoded.clear();
    for (const int32_t s : active) {
        const SourceModel& src = *ctx.sources[size_t(s)];
        const int64_t index = plan.source_tensors[size_t(s)];
        std::vector<float>& dest = ctx.buffers.source_floats[size_t(s)];
        parallel_rows(workers, n, [&](int64_t lo, int64_t hi) {
            decode_source_rows(src, index, start + lo, hi - lo, row_len,
                               dest.data() + lo * row_len);
        });
        const size_t row_bytes = ggml_row_size(ggml_type(tensor_type(src, index)), row_len);
        release_pages(tensor_data(src, index) + size_t(start) * row_bytes, row_bytes * size_t(n));
        read += row_bytes * uint64_t(n);
        decoded.push_back(dest.data());
    }
    return read;
}

RowImportance importance_of(const TensorPlan& plan) {
    if (plan.importance == nullptr) {
        return {};
    }
    return {plan.importance->data(), plan.ne[1]};
}

int64_t count_non_finite(const float* values, int64_t count) {
    int64_t found = 0;
    for (int64_t i = 0; i < count; ++i) {
        found += (std::bit_cast<uint32_t>(values[i]) & 0x7f800000u) == 0x7f800000u;
    }
    return found;
}

// Returns how many of the blended values are not finite.
int64_t blend_and_encode_chunk(const WriteContext& ctx, const TensorPlan& plan,
                               const MethodSpec& spec, uint64_t seed, int64_t start, int64_t n,
                               const std::vector<const float*>& decoded, size_t row_bytes) {
    const int64_t row_len = plan.ne[0];
    RowBuffers& buf = ctx.buffers;
    const int32_t workers = int32_t(std::min<int64_t>(ctx.threads, n));
    std::atomic<int64_t> non_finite{0};
    parallel_rows(workers, n, [&](int64_t lo, int64_t hi) {
        std::vector<const float*> local;
        local.reserve(decoded.size());
        for (const float* p : decoded) {
            local.push_back(p + lo * row_len);
        }
        float* blended = buf.blended.data() + lo * row_len;
        blend_rows(spec, seed, start + lo, local, blended, hi - lo, row_len);
        non_finite += count_non_finite(blended, (hi - lo) * row_len);
        encode_rows(plan.out_type, blended, buf.encoded.data() + size_t(lo) * row_bytes, hi - lo,
                    row_len, row_bytes, start + lo, importance_of(plan));
    });
    return non_finite.load();
}

void size_buffers(const WriteContext& ctx, const std::vector<int32_t>& active, int64_t rows,
                  int64_t row_len, size_t row_bytes) {
    RowBuffers& buf = ctx.buffers;
    buf.source_floats.resize(ctx.sources.size());
    for (auto& floats : buf.source_floats) {
        floats.clear();
    }
    for (const int32_t s : active) {
        buf.source_floats[size_t(s)].resize(size_t(rows * row_len));
    }
    buf.blended.resize(size_t(rows * row_len));
    buf.encoded.resize(size_t(rows) * row_bytes);
}

// Copies rows [first, first + n) of the source's tensor; the whole tensor when
// it has the plan's shape and the span covers it, so such a copy never depends
// on the row size. A donor aligned on a shared vocabulary may hold more rows.
uint64_t copy_rows(const WriteContext& ctx, const TensorPlan& plan, int32_t source, int64_t first,
                   int64_t n) {
    const SourceModel& src = *ctx.sources[size_t(source)];
    const int64_t index = plan.source_tensors[size_t(source)];
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    size_t offset = 0;
    size_t length = tensor_size(src, index);
    if (first != 0 || n != rows || tensor_shape(src, index) != plan.ne) {
        const size_t row_bytes = ggml_row_size(ggml_type(tensor_type(src, index)), plan.ne[0]);
        offset = size_t(first) * row_bytes;
        length = size_t(n) * row_bytes;
    }
    copy_file_bytes(ctx.out, tensor_fd(src, index), tensor_file_offset(src, index) + offset,
                    tensor_data(src, index) + offset, length);
    return length;
}

}  // namespace

int64_t chunk_rows(int64_t row_len, int64_t rows) {
    return std::max<int64_t>(
        std::min<int64_t>(kChunkElements / std::max<int64_t>(row_len, 1), rows), 1);
}

bool copies_unchanged(const SourceList& sources, const TensorPlan& plan,
                      const ActiveSources& active) {
    if (active.single < 0) {
        return false;
    }
    const SourceModel& src = *sources[size_t(active.single)];
    const int64_t index = plan.source_tensors[size_t(active.single)];
    return tensor_type(src, index) == plan.out_type;
}

float progress_fraction(uint64_t done, uint64_t total, float if_empty) {
    return total == 0 ? if_empty : float(done) / float(total);
}

TensorWrite write_tensor(const WriteContext& ctx, const TensorPlan& plan, uint64_t read_before) {
    const int64_t row_len = plan.ne[0];
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    const size_t row_bytes = ggml_row_size(ggml_type(plan.out_type), row_len);
    const std::vector<RowSpan> spans = row_spans(plan);

    if (spans.size() == 1 && copies_unchanged(ctx.sources, plan, spans[0].active)) {
        return {copy_rows(ctx, plan, spans[0].active.single, 0, rows), 0};
    }
    if (uint64_t(rows) * row_bytes == 0) {  // no element: ggml must not see a 0 row
        return {};
    }
    check_encodable(plan.out_type, plan.importance != nullptr);
    std::vector<int32_t> decoded_sources;
    for (const RowSpan& span : spans) {
        for (const int32_t s : span.active.sources) {
            check_decodable(tensor_type(*ctx.sources[size_t(s)], plan.source_tensors[size_t(s)]));
            decoded_sources.push_back(s);
        }
    }

    const int64_t per_chunk = chunk_rows(row_len, rows);
    size_buffers(ctx, decoded_sources, per_chunk, row_len, row_bytes);
    const uint64_t seed = tensor_seed(ctx.seed, plan.name);
    const std::string label = "Blending " + plan.name;
    std::vector<const float*> decoded;
    TensorWrite done;
    for (const RowSpan& span : spans) {
        if (copies_unchanged(ctx.sources, plan, span.active)) {
            done.read +=
                copy_rows(ctx, plan, span.active.single, span.first, span.end - span.first);
            continue;
        }
        for (int64_t start = span.first; start < span.end; start += per_chunk) {
            check_cancel(ctx);
            const int64_t n = std::min(per_chunk, span.end - start);
            done.read += decode_chunk(ctx, plan, span.active.sources, start, n, decoded);
            done.non_finite += blend_and_encode_chunk(ctx, plan, span.active.spec, seed, start, n,
                                                      decoded, row_bytes);
            write_bytes(ctx.out, ctx.buffers.encoded.data(), size_t(n) * row_bytes);
            check_output(ctx.out);
            emit_progress(ctx.progress,
                          progress_fraction(read_before + done.read, ctx.total_source_bytes, 0.0f),
                          label);
        }
    }
    return done;
}

}  // namespace tevrin
