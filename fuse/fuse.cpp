#include "fuse/fuse.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include "fuse/output_metadata.h"
#include "fuse/output_parts.h"
#include "fuse/output_stream.h"
#include "fuse/parallel_rows.h"
#include "fuse/plan_run.h"
#include "fuse/tensor_records.h"
#include "fuse/type_choice.h"
#include "fuse/write_tensor.h"
#include "model/gguf_handle.h"
#include "recipe/parse_recipe.h"

namespace tevrin {

namespace {

// Opening the output truncates it; were it one of the sources (under any
// spelling, or a hard link), the run would read through an emptied mapping.
void refuse_output_over_source(const std::string& path, const SourceList& sources) {
    struct stat out_st = {};
    if (stat(path.c_str(), &out_st) != 0) {
        return;
    }
    for (const auto& source : sources) {
        for (const SourceShard& shard : source->shards) {
            struct stat src_st = {};
            if (fstat(shard.fd, &src_st) == 0 && src_st.st_dev == out_st.st_dev &&
                src_st.st_ino == out_st.st_ino) {
                throw std::runtime_error("output would overwrite source " + shard.path);
            }
        }
    }
}

uint64_t source_bytes(const SourceList& sources, const TensorPlan& plan) {
    uint64_t total = 0;
    for (size_t s = 0; s < plan.source_tensors.size(); ++s) {
        if (plan.source_tensors[s] >= 0) {
            total += tensor_size(*sources[s], plan.source_tensors[s]);
        }
    }
    return total;
}

void write_metadata_block(gguf_context* out, OutputStream& stream) {
    std::vector<uint8_t> meta(gguf_get_meta_size(out));
    gguf_get_meta_data(out, meta.data());
    write_bytes(stream, meta.data(), meta.size());
}

// Zeros from the end of a tensor of `size` bytes to the next multiple of `alignment`.
void write_alignment_fill(OutputStream& stream, uint64_t size, uint64_t alignment) {
    write_zeros(stream, (size + alignment - 1) / alignment * alignment - size);
}

}  // namespace

void emit_progress(const ProgressFn& progress, float fraction, const std::string& label) {
    if (progress) {
        progress(FuseProgress{fraction, label});
    }
}

FuseResult fuse(const std::vector<std::string>& source_paths, const std::string& recipe_text,
                const std::string& output_path, int threads, const std::atomic<bool>* cancel,
                const ProgressFn& progress, const FuseOptions& options) {
    const auto start = std::chrono::steady_clock::now();
    FuseResult result;
    OutputStream output;
    std::vector<OutputStream> finished;  // shards already complete
    std::vector<OutputPart> parts;
    auto discard_all = [&] {
        discard_output(output);
        for (auto& done : finished) {
            discard_output(done);
            withdraw_output(done);
        }
    };
    auto finish = [&] {
        parts.clear();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        result.seconds =
            double(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) /
            1000000000.0;
    };
    try {
        silence_ggml_log();
        check_source_count(source_paths);
        const int workers = resolve_threads(threads);
        emit_progress(progress, 0.0f, "Uncorking sources");

        SourceList sources;
        open_sources(source_paths, sources);
        const Recipe recipe = parse_recipe(recipe_text, int32_t(sources.size()));

        RunPlan run = plan_run(recipe, sources);
        std::vector<TensorPlan>& plans = run.plans;

        const std::unique_ptr<ImportanceMatrix> matrix =
            options.imatrix_path.empty()
                ? nullptr
                : std::make_unique<ImportanceMatrix>(read_importance_matrix(options.imatrix_path));
        attach_importance(plans, recipe, matrix.get());

        parts = make_output_parts(make_output_metadata(sources, recipe, recipe_text, run.notes),
                                  plans, output_path, options.split);
        uint64_t total_source_bytes = 0;
        for (const auto& plan : plans) {
            total_source_bytes += source_bytes(sources, plan);
            result.params += plan.ne[0] * plan.ne[1] * plan.ne[2] * plan.ne[3];
            result.fallback += plan.fallback ? 1 : 0;
        }

        for (const auto& part : parts) {
            refuse_output_over_source(part.path, sources);
        }
        const uint64_t alignment = gguf_get_alignment(parts[0].meta.get());
        RowBuffers buffers;
        const WriteContext write_ctx{sources,  recipe.seed,        workers, cancel,
                                     progress, total_source_bytes, output,  buffers};
        uint64_t read = 0;
        for (const auto& part : parts) {
            open_output(output, part.path);
            write_metadata_block(part.meta.get(), output);
            for (size_t i = part.first; i < part.end; ++i) {
                const TensorPlan& plan = plans[i];
                if (cancel != nullptr && cancel->load()) {
                    throw std::runtime_error("cancelled");
                }
                const uint64_t before = output.written;
                const TensorWrite done = write_tensor(write_ctx, plan, read);
                read += done.read;
                write_alignment_fill(output, output.written - before, alignment);
                check_output(output);
                if (done.non_finite > 0) {
                    result.warnings.push_back("tensor " + plan.name + ": " +
                                              std::to_string(done.non_finite) +
                                              " values are not finite (nan or inf)");
                }
                emit_progress(progress, progress_fraction(read, total_source_bytes, 1.0f),
                              "Blending " + plan.name);
                ++result.tensors;
            }
            finish_output(output);
            result.bytes += output.written;
            finished.push_back(std::move(output));
            output = OutputStream{};
        }
        // An exception from this last event still fails the run, and the finished
        // file never takes the output's name: a failed run never leaves a file it made.
        // Every shard is complete before the first takes its name.
        emit_progress(progress, 1.0f, "Corked");
        for (auto& done : finished) {
            commit_output(done);
        }

        result.ok = true;
        result.output_path = parts[0].path;
        result.layers = run.output_layers;
        result.message = run.notes.empty() ? "ok" : join_notes(run.notes);
    } catch (const std::exception& e) {
        result.ok = false;
        result.message = e.what();
        result.output_path.clear();
        result.bytes = 0;
        result.layers = 0;
        discard_all();
    } catch (...) {
        discard_all();
        finish();
        throw;
    }
    finish();
    return result;
}

}  // namespace tevrin
