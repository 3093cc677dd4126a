#include "fuse/write_tensor.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

#include <ggml.h>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/f16_rows.h"

namespace tevrin {

namespace {

constexpr int64_t kChunkElements = 4194304;

bool weighted_method(BlendMethod m) {
    switch (m) {
        case BlendMethod::linear:
        case BlendMethod::ties:
        case BlendMethod::dare:
        case BlendMethod::task:
        case BlendMethod::breadcrumbs:
        case BlendMethod::della:
            return true;
        default:
            return false;
    }
}

std::vector<int32_t> find_active_sources(const TensorPlan& plan) {
    if (plan.only_source >= 0) {
        return {plan.only_source};
    }
    std::vector<int32_t> active;
    for (size_t s = 0; s < plan.source_tensors.size(); ++s) {
        if (plan.source_tensors[s] >= 0) {
            active.push_back(int32_t(s));
        }
    }
    if (active.empty() || active[0] != 0) {
        throw std::runtime_error("base is missing tensor " + plan.name);
    }
    return active;
}

struct ActiveSpec {
    MethodSpec spec;
    int32_t single_source = -1;
};

void take_single(ActiveSpec& a, int32_t pick_position, int32_t source) {
    a.spec.method = BlendMethod::pick;
    a.spec.pick = pick_position;
    a.single_source = source;
}

// Moves the plan's spec onto the list of sources that really feed the tensor:
// pick indices become positions, weights follow their sources, and a method that
// cannot run on what is left turns into a plain pick.
ActiveSpec make_effective_spec(const TensorPlan& plan, const std::vector<int32_t>& active) {
    ActiveSpec a{plan.spec, -1};
    const bool one = active.size() == 1;
    if (plan.only_source >= 0) {
        take_single(a, 0, active[0]);
        return a;
    }
    const BlendMethod m = a.spec.method;
    if (m == BlendMethod::pick) {
        const auto it = std::find(active.begin(), active.end(), a.spec.pick);
        if (it != active.end()) {
            a.spec.pick = int32_t(it - active.begin());
            a.single_source = *it;
        } else {
            a.spec.pick = 0;
            a.single_source = active[0];
        }
        return a;
    }
    if ((m == BlendMethod::slerp || m == BlendMethod::nearswap) && one) {
        take_single(a, 0, active[0]);
        return a;
    }
    if (weighted_method(m) && !a.spec.weights.empty()) {
        const float missing = m == BlendMethod::linear ? 0.0f : 1.0f;
        std::vector<float> moved;
        for (int32_t s : active) {
            moved.push_back(size_t(s) < plan.spec.weights.size() ? plan.spec.weights[s] : missing);
        }
        a.spec.weights = std::move(moved);
    }
    if (m != BlendMethod::slerp && m != BlendMethod::nearswap && one) {
        a.single_source = active[0];
    }
    return a;
}

const uint8_t* tensor_bytes(const SourceModel& source, int64_t index) {
    return source.mapping + source.data_offset + gguf_get_tensor_offset(source.gguf, index);
}

void emit(const WriteContext& ctx, float fraction, const std::string& label) {
    if (ctx.progress) {
        ctx.progress(FuseProgress{fraction, label});
    }
}

void write_fill(WriteContext& ctx, uint64_t size) {
    static const uint8_t zeros[64] = {};
    const uint64_t padded = (size + ctx.alignment - 1) / ctx.alignment * ctx.alignment;
    for (uint64_t left = padded - size; left > 0;) {
        const uint64_t piece = std::min<uint64_t>(left, sizeof zeros);
        std::fwrite(zeros, 1, piece, ctx.out);
        left -= piece;
    }
    ctx.written_bytes += padded - size;
}

// Drops this process's mapping of source bytes it is done with. The pages stay
// in the page cache and fault back in if read again, so memory in use stays at
// the size of a chunk however large the sources are.
void release_pages(const uint8_t* begin, size_t size) {
    static const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t lo = (reinterpret_cast<uintptr_t>(begin) + page - 1) / page * page;
    const uintptr_t hi = (reinterpret_cast<uintptr_t>(begin) + size) / page * page;
    if (hi > lo) {
        madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_DONTNEED);
    }
}

// Copies a tensor's bytes unchanged, file to file inside the kernel where it can
// (the mapping is never touched), and through the stream for whatever it cannot:
// another file system, a pipe, a device. A failed write shows in the stream's
// error state at the end of the run like any other.
void copy_tensor_bytes(WriteContext& ctx, const SourceModel& src, int64_t index, size_t size) {
    std::fflush(ctx.out);
    loff_t from = loff_t(src.data_offset + gguf_get_tensor_offset(src.gguf, index));
    size_t left = size;
    while (left > 0) {
        const ssize_t n = copy_file_range(src.fd, &from, fileno(ctx.out), nullptr, left, 0);
        if (n <= 0) {
            break;
        }
        left -= size_t(n);
    }
    if (left > 0) {
        std::fwrite(src.mapping + from, 1, left, ctx.out);
        release_pages(src.mapping + from, left);
    }
}

void decode_rows(const uint8_t* first_row, ggml_type type, size_t src_row_bytes, int64_t row_len,
                 float* dest, int64_t lo, int64_t hi) {
    for (int64_t r = lo; r < hi; ++r) {
        const uint8_t* row = first_row + size_t(r) * src_row_bytes;
        float* out = dest + r * row_len;
        if (type == GGML_TYPE_F32) {
            std::memcpy(out, row, size_t(row_len) * sizeof(float));
        } else if (type == GGML_TYPE_F16) {
            f16_row_to_floats(row, out, row_len);
        } else {
            ggml_get_type_traits(type)->to_float(row, out, row_len);
        }
    }
}

// The types ggml_quantize_chunk can make without an importance matrix; for any
// other type it would abort. A plan only asks for another type with "out keep".
bool encodable_type(int32_t type) {
    switch (ggml_type(type)) {
        case GGML_TYPE_F32:
        case GGML_TYPE_F16:
        case GGML_TYPE_BF16:
        case GGML_TYPE_Q4_0:
        case GGML_TYPE_Q4_1:
        case GGML_TYPE_Q5_0:
        case GGML_TYPE_Q5_1:
        case GGML_TYPE_Q8_0:
        case GGML_TYPE_Q2_K:
        case GGML_TYPE_Q3_K:
        case GGML_TYPE_Q4_K:
        case GGML_TYPE_Q5_K:
        case GGML_TYPE_Q6_K:
        case GGML_TYPE_TQ1_0:
        case GGML_TYPE_TQ2_0:
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ3_S:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ1_M:
        case GGML_TYPE_IQ4_NL:
        case GGML_TYPE_IQ4_XS:
        case GGML_TYPE_MXFP4:
            return !ggml_quantize_requires_imatrix(ggml_type(type));
        default:
            return false;
    }
}

// ggml quantizes these types by searching a grid of points; its search aborts the
// process when no point is nearer than the float maximum, which happens for NaN and
// for values from about 1e12 on (squares of squares overflow). Values within 1e9
// are safe; anything beyond fails the run instead.
bool grid_searched_type(int32_t type) {
    switch (ggml_type(type)) {
        case GGML_TYPE_IQ3_XXS:
        case GGML_TYPE_IQ3_S:
        case GGML_TYPE_IQ2_S:
        case GGML_TYPE_IQ1_M:
            return true;
        default:
            return false;
    }
}

void check_grid_range(int32_t out_type, const float* src, int64_t count) {
    constexpr float kLargestGridValue = 1e9f;
    for (int64_t i = 0; i < count; ++i) {
        if (!(std::fabs(src[i]) <= kLargestGridValue)) {
            throw std::runtime_error(std::string("cannot quantize to type ") +
                                     ggml_type_name(ggml_type(out_type)) + ": value out of range");
        }
    }
}

void encode_rows(int32_t out_type, const float* src, uint8_t* dest, int64_t rows, int64_t row_len,
                 size_t row_bytes) {
    if (grid_searched_type(out_type)) {
        check_grid_range(out_type, src, rows * row_len);
    }
    if (out_type == GGML_TYPE_F32) {
        std::memcpy(dest, src, size_t(rows) * row_bytes);
    } else {
        ggml_quantize_chunk(ggml_type(out_type), src, dest, 0, rows, row_len, nullptr);
    }
}

}  // namespace

float progress_fraction(uint64_t done, uint64_t total, float if_empty) {
    return total == 0 ? if_empty : float(done) / float(total);
}

void parallel_rows(int32_t workers, int64_t rows,
                   const std::function<void(int64_t, int64_t)>& body) {
    if (workers <= 1) {
        body(0, rows);
        return;
    }
    const int64_t per = (rows + workers - 1) / workers;
    std::vector<std::exception_ptr> failures(static_cast<size_t>(workers));
    std::vector<std::thread> threads;
    threads.reserve(size_t(workers));
    std::exception_ptr start_failure;
    for (int32_t t = 0; t < workers; ++t) {
        const int64_t lo = t * per;
        const int64_t hi = std::min(lo + per, rows);
        if (hi <= lo) {
            break;
        }
        try {
            threads.emplace_back([&body, &failures, t, lo, hi] {
                try {
                    body(lo, hi);
                } catch (const std::bad_alloc&) {
                    failures[size_t(t)] = std::make_exception_ptr(
                        std::runtime_error("out of memory in a worker thread"));
                } catch (...) {
                    failures[size_t(t)] = std::current_exception();
                }
            });
        } catch (const std::system_error&) {
            start_failure =
                std::make_exception_ptr(std::runtime_error("cannot start a worker thread"));
            break;
        }
    }
    for (auto& thread : threads) {
        thread.join();
    }
    if (start_failure) {
        std::rethrow_exception(start_failure);
    }
    for (const auto& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
}

void write_tensor(WriteContext& ctx, const TensorPlan& plan) {
    const int64_t row_len = plan.ne[0];
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    const size_t row_bytes = ggml_row_size(ggml_type(plan.out_type), row_len);
    const uint64_t out_size = uint64_t(rows) * row_bytes;
    const std::string label = "Blending " + plan.name;

    const std::vector<int32_t> active = find_active_sources(plan);
    const ActiveSpec effective = make_effective_spec(plan, active);
    const uint64_t seed = tensor_seed(ctx.seed, plan.name);

    if (effective.single_source >= 0) {
        const SourceModel& src = *ctx.sources[size_t(effective.single_source)];
        const int64_t index = plan.source_tensors[size_t(effective.single_source)];
        if (int32_t(gguf_get_tensor_type(src.gguf, index)) == plan.out_type) {
            const size_t size = gguf_get_tensor_size(src.gguf, index);
            copy_tensor_bytes(ctx, src, index, size);
            ctx.written_bytes += size;
            ctx.done_source_bytes += size;
            write_fill(ctx, out_size);
            return;
        }
    }

    if (out_size == 0) {  // no element: nothing to decode, and ggml must not see a 0 row
        write_fill(ctx, 0);
        return;
    }
    if (!encodable_type(plan.out_type)) {
        throw std::runtime_error(std::string("cannot quantize to type ") +
                                 ggml_type_name(ggml_type(plan.out_type)));
    }
    const int64_t chunk_rows = std::max<int64_t>(
        std::min<int64_t>(kChunkElements / std::max<int64_t>(row_len, 1), rows), 1);
    std::vector<int32_t> decode_list =
        effective.single_source >= 0 ? std::vector<int32_t>{effective.single_source} : active;
    RowBuffers& buf = ctx.buffers;
    buf.source_floats.resize(ctx.sources.size());
    for (auto& floats : buf.source_floats) {
        floats.clear();
    }
    buf.blended.resize(size_t(chunk_rows * row_len));
    buf.encoded.resize(size_t(chunk_rows) * row_bytes);

    MethodSpec blend_spec = effective.spec;
    if (effective.single_source >= 0) {
        blend_spec.method = BlendMethod::pick;
        blend_spec.pick = 0;
    }

    for (int64_t start = 0; start < rows; start += chunk_rows) {
        if (ctx.cancel != nullptr && ctx.cancel->load()) {
            throw std::runtime_error("cancelled");
        }
        const int64_t n = std::min(chunk_rows, rows - start);
        const int32_t workers = int32_t(std::min<int64_t>(ctx.threads, n));
        std::vector<const float*> chunk_sources;
        for (int32_t s : decode_list) {
            const SourceModel& src = *ctx.sources[size_t(s)];
            const int64_t index = plan.source_tensors[size_t(s)];
            const ggml_type type = gguf_get_tensor_type(src.gguf, index);
            if (type != GGML_TYPE_F32 && ggml_get_type_traits(type)->to_float == nullptr) {
                throw std::runtime_error(std::string("cannot dequantize type ") +
                                         ggml_type_name(type));
            }
            const size_t src_row_bytes = ggml_row_size(type, row_len);
            std::vector<float>& dest = buf.source_floats[size_t(s)];
            dest.resize(size_t(chunk_rows * row_len));
            const uint8_t* first = tensor_bytes(src, index) + size_t(start) * src_row_bytes;
            parallel_rows(workers, n, [&](int64_t lo, int64_t hi) {
                decode_rows(first, type, src_row_bytes, row_len, dest.data(), lo, hi);
            });
            release_pages(first, src_row_bytes * size_t(n));
            ctx.done_source_bytes += src_row_bytes * uint64_t(n);
            chunk_sources.push_back(dest.data());
        }
        parallel_rows(workers, n, [&](int64_t lo, int64_t hi) {
            std::vector<const float*> local;
            local.reserve(chunk_sources.size());
            for (const float* p : chunk_sources) {
                local.push_back(p + lo * row_len);
            }
            float* blended = buf.blended.data() + lo * row_len;
            blend_rows(blend_spec, seed, start + lo, local, blended, hi - lo, row_len);
            encode_rows(plan.out_type, blended, buf.encoded.data() + size_t(lo) * row_bytes,
                        hi - lo, row_len, row_bytes);
        });
        std::fwrite(buf.encoded.data(), 1, size_t(n) * row_bytes, ctx.out);
        ctx.written_bytes += uint64_t(n) * row_bytes;
        emit(ctx, progress_fraction(ctx.done_source_bytes, ctx.total_source_bytes, 0.0f), label);
    }
    write_fill(ctx, out_size);
}

}  // namespace tevrin
