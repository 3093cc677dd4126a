#include "fuse/fuse.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <thread>

#include "fuse/output_metadata.h"
#include "fuse/stack_plan.h"
#include "fuse/tensor_plan.h"
#include "fuse/write_tensor.h"
#include "model/gguf_handle.h"
#include "recipe/parse_recipe.h"

namespace tevrin {

namespace {

constexpr size_t kStreamBuffer = 8388608;

// The output file of a run. Clean-up after a failure removes only a regular file
// that this run created or truncated, and only while the path still names that
// very file: `-o /dev/null`, a FIFO or a device is written to but never removed.
struct OutputFile {
    FILE* stream = nullptr;
    bool removable = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

void open_output(OutputFile& out, const std::string& path) {
    out.stream = std::fopen(path.c_str(), "wb");
    if (out.stream == nullptr) {
        throw std::runtime_error("cannot write " + path);
    }
    struct stat st = {};
    if (fstat(fileno(out.stream), &st) == 0 && S_ISREG(st.st_mode)) {
        out.removable = true;
        out.dev = st.st_dev;
        out.ino = st.st_ino;
    }
    // One buffer per calling thread, kept for the thread's life.
    thread_local std::vector<char> buffer(kStreamBuffer);
    std::setvbuf(out.stream, buffer.data(), _IOFBF, buffer.size());
}

void discard_output(OutputFile& out, const std::string& path) {
    if (out.stream != nullptr) {
        std::fclose(out.stream);
        out.stream = nullptr;
    }
    struct stat st = {};
    if (out.removable && lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        st.st_dev == out.dev && st.st_ino == out.ino) {
        std::remove(path.c_str());
    }
}

// Opening the output truncates it; were it one of the sources (under any
// spelling, or a hard link), the run would read through an emptied mapping.
void refuse_output_over_source(const std::string& path, const SourceList& sources) {
    struct stat out_st = {};
    if (stat(path.c_str(), &out_st) != 0) {
        return;
    }
    for (const auto& source : sources) {
        struct stat src_st = {};
        if (fstat(source->fd, &src_st) == 0 && src_st.st_dev == out_st.st_dev &&
            src_st.st_ino == out_st.st_ino) {
            throw std::runtime_error("output would overwrite source " + source->path);
        }
    }
}

void emit(const ProgressFn& progress, float fraction, const std::string& label) {
    if (progress) {
        progress(FuseProgress{fraction, label});
    }
}

void open_sources(const std::vector<std::string>& paths, SourceList& sources) {
    for (const auto& path : paths) {
        sources.push_back(std::make_unique<SourceModel>());
        sources.back()->open(path);
    }
}

void add_source_notes(const SourceList& sources, const Recipe& recipe,
                      std::vector<std::string>& notes) {
    const SourceModel& base = *sources[0];
    for (size_t s = 1; s < sources.size(); ++s) {
        const SourceModel& donor = *sources[s];
        if (donor.arch != base.arch) {
            notes.push_back("mixed families (" + base.arch + " + " + donor.arch +
                            "): mismatched tensors keep the base");
        } else if (recipe.stack.empty() && donor.n_layer != base.n_layer) {
            notes.push_back("depth-aligned " + std::to_string(donor.n_layer) + " layers onto " +
                            std::to_string(base.n_layer));
        }
    }
}

void plan_unstacked(PlanContext& ctx) {
    const SourceModel& base = *ctx.sources[0];
    const int64_t n = gguf_get_n_tensors(base.gguf);
    for (int64_t i = 0; i < n; ++i) {
        const std::string name = gguf_get_tensor_name(base.gguf, i);
        add_tensor_plan(ctx, name, base, i, name, block_layer(name), -1);
    }
}

// Adds one tensor record per plan to the output context; fixes every tensor's
// place in the file before any data exists.
GgmlHandle add_tensor_records(gguf_context* out, const std::vector<TensorPlan>& plans) {
    ggml_init_params params = {ggml_tensor_overhead() * plans.size() + 1024, nullptr, true};
    GgmlHandle records(ggml_init(params));
    for (const auto& plan : plans) {
        // ggml keeps names of at most GGML_MAX_NAME - 1 bytes; a longer one would be
        // cut and could collide with another.
        if (plan.name.size() >= GGML_MAX_NAME) {
            throw std::runtime_error("tensor name too long: " + plan.name);
        }
        ggml_tensor* t =
            ggml_new_tensor(records.get(), ggml_type(plan.out_type), plan.n_dims, plan.ne.data());
        // The record keeps only the dimensions up to the last one above 1, so a
        // shape such as 64x0 would be stored as 64 and the header would promise
        // bytes that do not exist.
        const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
        if (ggml_nbytes(t) != ggml_row_size(t->type, plan.ne[0]) * size_t(rows)) {
            throw std::runtime_error("tensor " + plan.name +
                                     " has an empty dimension GGUF cannot keep");
        }
        ggml_set_name(t, plan.name.c_str());
        gguf_add_tensor(out, t);
    }
    return records;
}

uint64_t source_bytes(const SourceList& sources, const TensorPlan& plan) {
    uint64_t total = 0;
    for (size_t s = 0; s < plan.source_tensors.size(); ++s) {
        if (plan.source_tensors[s] >= 0) {
            total += gguf_get_tensor_size(sources[s]->gguf, plan.source_tensors[s]);
        }
    }
    return total;
}

void write_metadata_block(gguf_context* out, FILE* stream, uint64_t& written) {
    const size_t size = gguf_get_meta_size(out);
    std::vector<uint8_t> meta(size);
    gguf_get_meta_data(out, meta.data());
    std::fwrite(meta.data(), 1, size, stream);
    written = size;
}

std::string join_notes(std::vector<std::string> notes) {
    std::sort(notes.begin(), notes.end());
    notes.erase(std::unique(notes.begin(), notes.end()), notes.end());
    std::string joined;
    for (const auto& note : notes) {
        joined += (joined.empty() ? "" : "; ") + note;
    }
    return joined;
}

int resolve_threads(int threads) {
    if (threads > 0) {
        return threads;
    }
    const unsigned hw = std::thread::hardware_concurrency();
    return hw == 0 ? 1 : int(hw);
}

}  // namespace

FuseResult fuse(const std::vector<std::string>& source_paths, const std::string& recipe_text,
                const std::string& output_path, int threads, const std::atomic<bool>* cancel,
                const ProgressFn& progress) {
    const auto start = std::chrono::steady_clock::now();
    FuseResult result;
    OutputFile output;
    GgufHandle out_gguf;
    GgmlHandle out_ggml;
    auto finish = [&] {
        out_ggml.reset();
        out_gguf.reset();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        result.seconds =
            double(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) /
            1000000000.0;
    };
    try {
        silence_ggml_log();
        if (source_paths.empty()) {
            throw std::runtime_error("add at least one source model");
        }
        if (source_paths.size() > 8) {
            throw std::runtime_error("at most 8 source models");
        }
        const int workers = resolve_threads(threads);
        emit(progress, 0.0f, "Uncorking sources");

        SourceList sources;
        open_sources(source_paths, sources);
        const Recipe recipe = parse_recipe(recipe_text, int32_t(sources.size()));

        std::vector<std::string> notes;
        add_source_notes(sources, recipe, notes);
        check_stack_ranges(recipe, sources);

        const bool stacked = !recipe.stack.empty();
        const int32_t output_layers = stacked ? int32_t(recipe.stack.size()) : sources[0]->n_layer;
        std::vector<TensorPlan> plans;
        PlanContext plan_ctx{recipe, output_layers, sources, plans};
        if (stacked) {
            plan_stack(plan_ctx);
        } else {
            plan_unstacked(plan_ctx);
        }

        out_gguf = make_output_metadata(sources, recipe, recipe_text, notes);
        out_ggml = add_tensor_records(out_gguf.get(), plans);
        uint64_t total_source_bytes = 0;
        for (const auto& plan : plans) {
            total_source_bytes += source_bytes(sources, plan);
            result.params += plan.ne[0] * plan.ne[1] * plan.ne[2] * plan.ne[3];
            result.fallback += plan.fallback ? 1 : 0;
        }

        refuse_output_over_source(output_path, sources);
        open_output(output, output_path);
        uint64_t written = 0;
        write_metadata_block(out_gguf.get(), output.stream, written);

        uint64_t done = 0;
        RowBuffers buffers;
        WriteContext write_ctx{sources,
                               recipe.seed,
                               workers,
                               cancel,
                               progress,
                               output.stream,
                               gguf_get_alignment(out_gguf.get()),
                               buffers,
                               written,
                               done,
                               total_source_bytes};
        for (const auto& plan : plans) {
            if (cancel != nullptr && cancel->load()) {
                throw std::runtime_error("cancelled");
            }
            write_tensor(write_ctx, plan);
            emit(progress, progress_fraction(done, total_source_bytes, 1.0f),
                 "Blending " + plan.name);
            ++result.tensors;
        }

        const bool flushed = std::fflush(output.stream) == 0 && !std::ferror(output.stream);
        const bool closed = std::fclose(output.stream) == 0;
        output.stream = nullptr;
        if (!flushed || !closed) {
            throw std::runtime_error("write error (disk full?)");
        }
        // An exception from this last event still fails the run, and the finished
        // file is removed with it: a failed run never leaves a file it made.
        emit(progress, 1.0f, "Corked");

        result.ok = true;
        result.output_path = output_path;
        result.bytes = written;
        result.layers = output_layers;
        result.message = notes.empty() ? "ok" : join_notes(notes);
    } catch (const std::exception& e) {
        result.ok = false;
        result.message = e.what();
        result.output_path.clear();
        result.bytes = 0;
        result.layers = 0;
        discard_output(output, output_path);
    } catch (...) {
        discard_output(output, output_path);
        finish();
        throw;
    }
    finish();
    return result;
}

}  // namespace tevrin
