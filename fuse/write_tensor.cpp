#include "fuse/write_tensor.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <stdexcept>
#include <string>

#include <ggml.h>

#include "blend/blend.h"
#include "blend/cpu_features.h"
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

RowImportance importance_of(const TensorPlan& plan) {
    if (plan.importance == nullptr) {
        return {};
    }
    return {plan.importance->data(), plan.ne[1]};
}

// Counts in 32 bits a piece at a time, so that the loop takes 8 floats a step
// where the CPU has AVX2.
__attribute__((always_inline)) inline int64_t count_non_finite_pieces(const float* values,
                                                                      int64_t count) {
    constexpr int64_t kPiece = int64_t(1) << 30;
    int64_t found = 0;
    for (int64_t at = 0; at < count; at += kPiece) {
        const int64_t end = std::min(count, at + kPiece);
        uint32_t piece = 0;
        for (int64_t i = at; i < end; ++i) {
            piece += (std::bit_cast<uint32_t>(values[i]) & 0x7f800000u) == 0x7f800000u;
        }
        found += piece;
    }
    return found;
}

int64_t count_non_finite_plain(const float* values, int64_t count) {
    return count_non_finite_pieces(values, count);
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) int64_t count_non_finite_avx2(const float* values, int64_t count) {
    return count_non_finite_pieces(values, count);
}
#endif

int64_t count_non_finite(const float* values, int64_t count) {
#if defined(__x86_64__)
    if (cpu_features().avx2) {
        return count_non_finite_avx2(values, count);
    }
#endif
    return count_non_finite_plain(values, count);
}

// What the workers of one chunk share: rows [start, start + n) of a span.
struct ChunkJob {
    const WriteContext& ctx;
    const TensorPlan& plan;
    const ActiveSources& active;
    uint64_t seed;
    size_t row_bytes;
    int64_t start;
    int64_t n;
};

// Where a worker keeps one block: per source, its decoded floats or its F16
// bytes; and the blended floats.
struct WorkerBlock {
    size_t at;  // the worker's place in the buffers' blocks
    std::vector<const float*> decoded;
    std::vector<const uint16_t*> halves;
};

// True when every active source holds the tensor in F16.
bool all_f16(const ChunkJob& job) {
    for (const int32_t s : job.active.sources) {
        const int64_t index = job.plan.source_tensors[size_t(s)];
        if (tensor_type(*job.ctx.sources[size_t(s)], index) != GGML_TYPE_F16) {
            return false;
        }
    }
    return true;
}

// The values of rows [row, row + rows) to encode: the lone source's decoded
// rows, or the blend, straight from F16 bytes where the method allows it.
const float* block_values(const ChunkJob& job, WorkerBlock& block, bool f16, int64_t row,
                          int64_t rows) {
    const TensorPlan& plan = job.plan;
    const int64_t row_len = plan.ne[0];
    RowBuffers& buf = job.ctx.buffers;
    const std::vector<int32_t>& active = job.active.sources;
    float* blended = buf.blended.data() + block.at;
    if (f16 && job.active.single < 0) {
        for (size_t k = 0; k < active.size(); ++k) {
            const auto s = size_t(active[k]);
            block.halves[k] = reinterpret_cast<const uint16_t*>(
                tensor_data(*job.ctx.sources[s], plan.source_tensors[s]) +
                size_t(row) * size_t(row_len) * sizeof(uint16_t));
        }
        if (blend_f16_rows(job.active.spec, block.halves, blended, rows, row_len)) {
            return blended;
        }
    }
    for (size_t k = 0; k < active.size(); ++k) {
        const auto s = size_t(active[k]);
        float* dest = buf.source_floats[s].data() + block.at;
        decode_source_rows(*job.ctx.sources[s], plan.source_tensors[s], row, rows, row_len, dest);
        block.decoded[k] = dest;
    }
    if (job.active.single >= 0) {
        return block.decoded[0];  // a single source is picked as it is
    }
    blend_rows(job.active.spec, job.seed, row, block.decoded, blended, rows, row_len);
    return blended;
}

// Takes rows [lo, hi) of the chunk through decoding, blending and encoding, one
// block at a time; returns how many of the encoded floats are not finite.
int64_t blend_and_encode_rows(const ChunkJob& job, int32_t worker, int64_t lo, int64_t hi) {
    const TensorPlan& plan = job.plan;
    const int64_t row_len = plan.ne[0];
    const int64_t per_block = block_rows(row_len, range_rows(job.ctx.threads, job.n));
    const size_t n_active = job.active.sources.size();
    WorkerBlock block{size_t(worker) * size_t(per_block * row_len),
                      std::vector<const float*>(n_active), std::vector<const uint16_t*>(n_active)};
    const bool f16 = all_f16(job);
    int64_t non_finite = 0;
    for (int64_t at = lo; at < hi; at += per_block) {
        const int64_t rows = std::min(per_block, hi - at);
        const int64_t row = job.start + at;
        const float* values = block_values(job, block, f16, row, rows);
        non_finite += count_non_finite(values, rows * row_len);
        encode_rows(plan.out_type, values,
                    job.ctx.buffers.encoded.data() + size_t(at) * job.row_bytes, rows, row_len,
                    job.row_bytes, row, importance_of(plan));
    }
    return non_finite;
}

// Encodes the chunk into the buffers' encoded rows on all threads, then releases
// its source pages; returns the source bytes read and the non-finite count.
TensorWrite blend_and_encode_chunk(const ChunkJob& job) {
    const WriteContext& ctx = job.ctx;
    std::atomic<int64_t> non_finite{0};
    parallel_worker_rows(chunk_workers(ctx.threads, job.n), job.n,
                         [&](int32_t worker, int64_t lo, int64_t hi) {
                             non_finite += blend_and_encode_rows(job, worker, lo, hi);
                         });
    TensorWrite done{0, non_finite.load()};
    for (const int32_t s : job.active.sources) {
        const SourceModel& src = *ctx.sources[size_t(s)];
        const int64_t index = job.plan.source_tensors[size_t(s)];
        const size_t row_bytes = ggml_row_size(ggml_type(tensor_type(src, index)), job.plan.ne[0]);
        release_pages(tensor_data(src, index) + size_t(job.start) * row_bytes,
                      row_bytes * size_t(job.n));
        done.read += row_bytes * uint64_t(job.n);
    }
    return done;
}

// Gives every worker of a chunk a block per decoded source and a blended block,
// and the encoded rows room for a chunk.
void size_buffers(const WriteContext& ctx, const std::vector<int32_t>& decoded, int64_t row_len,
                  int64_t rows, size_t row_bytes) {
    RowBuffers& buf = ctx.buffers;
    const int64_t per_chunk = chunk_rows(row_len, rows);
    const auto blocks = size_t(worker_block_floats(ctx.threads, row_len, rows));
    buf.source_floats.resize(ctx.sources.size());
    for (auto& floats : buf.source_floats) {
        floats.clear();
    }
    for (const int32_t s : decoded) {
        buf.source_floats[size_t(s)].resize(blocks);
    }
    buf.blended.resize(blocks);
    buf.encoded.resize(size_t(per_chunk) * row_bytes);
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

int32_t chunk_workers(int32_t threads, int64_t chunk) {
    return int32_t(std::max<int64_t>(std::min<int64_t>(threads, chunk), 1));
}

int64_t range_rows(int32_t threads, int64_t chunk) {
    const int32_t workers = chunk_workers(threads, chunk);
    return (chunk + workers - 1) / workers;
}

int64_t block_rows(int64_t row_len, int64_t rows) {
    return std::max<int64_t>(
        std::min<int64_t>(kBlockElements / std::max<int64_t>(row_len, 1), rows), 1);
}

uint64_t worker_block_floats(int32_t threads, int64_t row_len, int64_t rows) {
    const int64_t per_chunk = chunk_rows(row_len, rows);
    return uint64_t(chunk_workers(threads, per_chunk)) *
           uint64_t(block_rows(row_len, range_rows(threads, per_chunk)) * row_len);
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
    size_buffers(ctx, decoded_sources, row_len, rows, row_bytes);
    const uint64_t seed = tensor_seed(ctx.seed, plan.name);
    const std::string label = "Blending " + plan.name;
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
            const TensorWrite chunk =
                blend_and_encode_chunk(ChunkJob{ctx, plan, span.active, seed, row_bytes, start, n});
            done.read += chunk.read;
            done.non_finite += chunk.non_finite;
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
