#include "fuse/compare.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>

#include <ggml.h>

#include "fuse/compare_summary.h"
#include "fuse/compare_sums.h"
#include "fuse/decode_rows.h"
#include "fuse/parallel_rows.h"
#include "fuse/tensor_plan.h"
#include "fuse/write_tensor.h"
#include "model/gguf_handle.h"

namespace tevrin {

namespace {

// Rows are summed in blocks of about this many elements, the unit of the fixed
// order of the sums. Rows of types other than F16 are decoded a slice of about
// kSliceElements per source at a time, which stays in a core's nearest cache
// until it is summed.
constexpr int64_t kBlockElements = 16384;
constexpr int64_t kSliceElements = 2048;
constexpr size_t kMaxSources = kMaxDonors + 1;

constexpr double kUndefined = std::numeric_limits<double>::quiet_NaN();

// What one tensor needs of the run: where each source holds it.
struct TensorWork {
    size_t entry = 0;              // index in Comparison::tensors
    std::vector<int64_t> indices;  // per source; -1: not compared
    int64_t row_len = 0;
    int64_t rows = 0;
};

bool decodable(ggml_type type) {
    return type == GGML_TYPE_F32 || ggml_get_type_traits(type)->to_float != nullptr;
}

bool same_shape(const SourceModel& a, int64_t ia, const SourceModel& b, int64_t ib) {
    return tensor_shape(a, ia) == tensor_shape(b, ib);
}

int64_t element_count(const SourceModel& model, int64_t index) {
    const std::array<int64_t, 4> ne = tensor_shape(model, index);
    return ne[0] * ne[1] * ne[2] * ne[3];
}

TensorComparison new_entry(const std::string& name, size_t sources) {
    TensorComparison t;
    t.name = name;
    t.layer = block_layer(name);
    t.role = tensor_role(name);
    t.present.assign(sources, false);
    t.donors.resize(sources - 1);
    return t;
}

// Fills present/status of one reference tensor and the indices to compare.
TensorWork pair_reference_tensor(const SourceList& sources, int64_t ref_index,
                                 TensorComparison& entry) {
    const SourceModel& ref = *sources[0];
    TensorWork work;
    work.indices.assign(sources.size(), -1);
    const std::array<int64_t, 4> ne = tensor_shape(ref, ref_index);
    work.row_len = ne[0];
    work.rows = ne[1] * ne[2] * ne[3];
    entry.params = work.row_len * work.rows;
    entry.present[0] = true;
    const bool ref_decodes = decodable(ggml_type(tensor_type(ref, ref_index)));
    for (size_t s = 1; s < sources.size(); ++s) {
        const SourceModel& src = *sources[s];
        PairFigures& pair = entry.donors[s - 1];
        const auto it = src.tensor_index.find(entry.name);
        if (it == src.tensor_index.end()) {
            pair.status = PairStatus::missing;
            continue;
        }
        entry.present[s] = true;
        if (!same_shape(ref, ref_index, src, it->second)) {
            pair.status = PairStatus::shape_differs;
        } else if (!ref_decodes || !decodable(ggml_type(tensor_type(src, it->second)))) {
            pair.status = PairStatus::not_decodable;
        } else {
            pair.status = PairStatus::compared;
            work.indices[s] = it->second;
        }
    }
    if (std::find_if(work.indices.begin() + 1, work.indices.end(),
                     [](int64_t i) { return i >= 0; }) != work.indices.end()) {
        work.indices[0] = ref_index;
    }
    return work;
}

// Tensors of the donors that the reference lacks, each listed once, in source
// then file order.
void list_extra_tensors(const SourceList& sources, std::vector<TensorComparison>& entries) {
    const SourceModel& ref = *sources[0];
    std::set<std::string> listed;
    for (size_t s = 1; s < sources.size(); ++s) {
        const SourceModel& src = *sources[s];
        for (int64_t i = 0; i < tensor_count(src); ++i) {
            const std::string name = tensor_name(src, i);
            if (ref.tensor_index.count(name) != 0 || !listed.insert(name).second) {
                continue;
            }
            TensorComparison entry = new_entry(name, sources.size());
            entry.params = element_count(src, i);
            for (size_t o = 1; o < sources.size(); ++o) {
                entry.present[o] = sources[o]->tensor_index.count(name) != 0;
                entry.donors[o - 1].status =
                    entry.present[o] ? PairStatus::no_reference : PairStatus::missing;
            }
            entries.push_back(std::move(entry));
        }
    }
}

const uint8_t* rows_at(const SourceModel& src, int64_t index, int64_t row_len, int64_t row0,
                       size_t& row_bytes) {
    row_bytes = ggml_row_size(ggml_type(tensor_type(src, index)), row_len);
    return tensor_data(src, index) + size_t(row0) * row_bytes;
}

// Releases the mapping of rows [row0, row0 + n) as a fusion does; returns their size.
uint64_t release_rows(const SourceModel& src, int64_t index, int64_t row_len, int64_t row0,
                      int64_t n) {
    size_t row_bytes = 0;
    const uint8_t* first = rows_at(src, index, row_len, row0, row_bytes);
    release_pages(first, row_bytes * size_t(n));
    return row_bytes * uint64_t(n);
}

PairFigures figures_from_sums(double rr, const PairSums& p) {
    PairFigures f;
    f.status = PairStatus::compared;
    if (!std::isfinite(rr) || !std::isfinite(p.ss) || !std::isfinite(p.dd)) {
        f.cosine = f.distance = kUndefined;
    } else if (rr == 0.0 && p.ss == 0.0) {
        f.cosine = 1.0;
        f.distance = 0.0;
    } else if (rr == 0.0 || p.ss == 0.0) {
        f.cosine = kUndefined;
        f.distance = rr == 0.0 ? kUndefined : 1.0;
    } else {
        double norms = std::sqrt(rr * p.ss);
        if (!std::isfinite(norms) || norms == 0.0) {  // the product left the double range
            norms = std::sqrt(rr) * std::sqrt(p.ss);
        }
        // <r,s> = (|r|^2 + |s|^2 - |s - r|^2) / 2: exact for equal tensors (dd is 0),
        // and the direct |s - r| keeps small differences from cancelling.
        f.cosine = std::clamp((rr + p.ss - p.dd) / (2.0 * norms), -1.0, 1.0);
        f.distance = std::sqrt(p.dd) / std::sqrt(rr);
    }
    return f;
}

struct RunState {
    const SourceList& sources;
    int32_t threads;
    const std::atomic<bool>* cancel;
    const ProgressFn& progress;
    uint64_t done_bytes = 0;
    uint64_t total_bytes = 0;
};

uint64_t work_bytes(const SourceList& sources, const TensorWork& work) {
    uint64_t total = 0;
    for (size_t s = 0; s < sources.size(); ++s) {
        if (work.indices[s] >= 0) {
            total += tensor_size(*sources[s], work.indices[s]);
        }
    }
    return total;
}

// One tensor's rows as a worker sums them: `active` holds the reference, then the
// compared donors.
struct RowJob {
    const RunState& run;
    const TensorWork& work;
    const std::vector<int32_t>& active;

    const SourceModel& source(size_t a) const { return *run.sources[size_t(active[a])]; }
    int64_t index(size_t a) const { return work.indices[size_t(active[a])]; }
};

bool all_half(const RowJob& job) {
    for (size_t a = 0; a < job.active.size(); ++a) {
        if (tensor_type(job.source(a), job.index(a)) != GGML_TYPE_F16) {
            return false;
        }
    }
    return true;
}

// Adds rows [row0, row0 + n) of F16 sources to `lanes` where they lie.
void add_half_rows(const RowJob& job, int64_t row0, int64_t n, SumLanes& lanes) {
    const int64_t row_len = job.work.row_len;
    std::array<const uint16_t*, kMaxSources> rows{};
    for (size_t a = 0; a < job.active.size(); ++a) {
        size_t row_bytes = 0;
        rows[a] = reinterpret_cast<const uint16_t*>(
            rows_at(job.source(a), job.index(a), row_len, row0, row_bytes));
    }
    for (int64_t k = 0; k < n; ++k) {
        add_half_row(lanes, rows[0], rows.data() + 1, job.active.size() - 1, row_len);
        for (size_t a = 0; a < job.active.size(); ++a) {
            rows[a] += row_len;
        }
    }
}

// Decodes rows [row0, row0 + n) `slice_rows` at a time into `scratch`, which
// holds a slice of every source, and adds them to `lanes`.
void add_decoded_rows(const RowJob& job, int64_t row0, int64_t n, int64_t slice_rows,
                      std::vector<float>& scratch, SumLanes& lanes) {
    const int64_t row_len = job.work.row_len;
    const int64_t slice = slice_rows * row_len;
    std::array<const float*, kMaxSources> rows{};
    for (int64_t r = 0; r < n; r += slice_rows) {
        const int64_t m = std::min(slice_rows, n - r);
        for (size_t a = 0; a < job.active.size(); ++a) {
            decode_source_rows(job.source(a), job.index(a), row0 + r, m, row_len,
                               scratch.data() + slice * int64_t(a));
            rows[a] = scratch.data() + slice * int64_t(a);
        }
        for (int64_t k = 0; k < m; ++k) {
            add_row(lanes, rows[0], rows.data() + 1, job.active.size() - 1, row_len);
            for (size_t a = 0; a < job.active.size(); ++a) {
                rows[a] += row_len;
            }
        }
    }
}

// Sums the blocks [first, last) of one chunk; sums[b - first] gets block b. F16
// rows are summed where they lie when the CPU can, others decoded first.
void sum_blocks(const RowJob& job, int64_t block_rows, int64_t first, int64_t last,
                BlockSums* sums) {
    const TensorWork& work = job.work;
    const bool halves = adds_half_rows() && all_half(job);
    const int64_t slice_rows = std::clamp<int64_t>(kSliceElements / work.row_len, 1, block_rows);
    std::vector<float> scratch(halves ? 0 : size_t(slice_rows * work.row_len) * job.active.size());
    for (int64_t b = first; b < last; ++b) {
        const int64_t row0 = b * block_rows;
        const int64_t n = std::min(block_rows, work.rows - row0);
        SumLanes lanes;
        if (halves) {
            add_half_rows(job, row0, n, lanes);
        } else {
            add_decoded_rows(job, row0, n, slice_rows, scratch, lanes);
        }
        sums[b - first] = lane_totals(lanes, job.active.size() - 1);
    }
}

void compare_tensor(RunState& run, const TensorWork& work, TensorComparison& entry) {
    std::vector<int32_t> active;  // the reference, then the compared donors
    for (size_t s = 0; s < run.sources.size(); ++s) {
        if (work.indices[s] >= 0) {
            active.push_back(int32_t(s));
        }
    }
    const RowJob job{run, work, active};
    const int64_t block_rows =
        std::max<int64_t>(1, kBlockElements / std::max<int64_t>(work.row_len, 1));
    const int64_t blocks = work.row_len == 0 ? 0 : (work.rows + block_rows - 1) / block_rows;
    const int64_t chunk_blocks =
        std::max<int64_t>(1, kChunkElements / std::max<int64_t>(block_rows * work.row_len, 1));
    BlockSums total;
    std::vector<BlockSums> sums(size_t(std::min(chunk_blocks, std::max<int64_t>(blocks, 1))));
    const std::string label = "Comparing " + entry.name;
    for (int64_t start = 0; start < blocks; start += chunk_blocks) {
        if (run.cancel != nullptr && run.cancel->load()) {
            throw std::runtime_error("cancelled");
        }
        const int64_t count = std::min(chunk_blocks, blocks - start);
        parallel_rows(int32_t(std::min<int64_t>(run.threads, count)), count,
                      [&](int64_t lo, int64_t hi) {
                          sum_blocks(job, block_rows, start + lo, start + hi, sums.data() + lo);
                      });
        for (int64_t b = 0; b < count; ++b) {
            add_block(total, sums[size_t(b)], active.size() - 1);
        }
        const int64_t row0 = start * block_rows;
        const int64_t rows = std::min(count * block_rows, work.rows - row0);
        for (int32_t s : active) {
            run.done_bytes += release_rows(*run.sources[size_t(s)], work.indices[size_t(s)],
                                           work.row_len, row0, rows);
        }
        if (run.progress) {
            run.progress(FuseProgress{
                run.total_bytes == 0 ? 0.0f : float(run.done_bytes) / float(run.total_bytes),
                label});
        }
    }
    for (size_t a = 1; a < active.size(); ++a) {
        entry.donors[size_t(active[a]) - 1] = figures_from_sums(total.rr, total.pairs[a - 1]);
    }
}

}  // namespace

CompareRole tensor_role(const std::string& name) {
    const std::string part = block_layer(name) >= 0 ? block_suffix(name) : name;
    if (part.find("norm") != std::string::npos) {
        return CompareRole::norm;
    }
    if (part.rfind("attn_", 0) == 0) {
        return CompareRole::attention;
    }
    if (part.rfind("ffn_", 0) == 0) {
        return CompareRole::feed_forward;
    }
    return CompareRole::other;
}

const char* role_word(CompareRole role) {
    static const char* const words[] = {"attention", "feed-forward", "norm", "other"};
    return words[size_t(role)];
}

const char* status_word(PairStatus status) {
    static const char* const words[] = {"compared", "missing", "no_reference", "shape_differs",
                                        "not_decodable"};
    return words[size_t(status)];
}

Comparison compare_sources(const std::vector<std::string>& paths, int threads,
                           const std::atomic<bool>* cancel, const ProgressFn& progress) {
    if (paths.size() < 2 || paths.size() > kMaxSources) {
        throw std::runtime_error("compare takes 2 to 8 sources");
    }
    silence_ggml_log();
    SourceList sources;
    for (const auto& path : paths) {
        sources.push_back(std::make_unique<SourceModel>());
        sources.back()->open(path);
    }
    Comparison result;
    result.paths = paths;
    std::vector<TensorWork> work;
    const SourceModel& ref = *sources[0];
    for (int64_t i = 0; i < tensor_count(ref); ++i) {
        result.tensors.push_back(new_entry(tensor_name(ref, i), sources.size()));
        TensorWork w = pair_reference_tensor(sources, i, result.tensors.back());
        w.entry = result.tensors.size() - 1;
        if (w.indices[0] >= 0) {
            work.push_back(std::move(w));
        }
    }
    list_extra_tensors(sources, result.tensors);

    RunState run{sources, int32_t(resolve_threads(threads)), cancel, progress};
    for (const TensorWork& w : work) {
        run.total_bytes += work_bytes(sources, w);
    }
    if (progress) {
        progress(FuseProgress{0.0f, "Uncorking sources"});
    }
    for (const TensorWork& w : work) {
        compare_tensor(run, w, result.tensors[w.entry]);
    }
    summarise(result);
    if (progress) {
        progress(FuseProgress{1.0f, "Compared"});
    }
    return result;
}

}  // namespace tevrin
