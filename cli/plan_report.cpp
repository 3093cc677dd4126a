#include "cli/plan_report.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

#include <ggml.h>

#include "fuse/run_preview.h"
#include "model/inspect.h"
#include "recipe/method_table.h"

namespace tevrin {
namespace {

struct TypeReason {
    std::string brief;  // for the table's type column
    std::string full;   // for the JSON line
};

// One output tensor as the report shows it; both forms print these fields.
struct TensorRow {
    std::string name, shape, type, rule, method, sources, dropped;
    TypeReason type_reason;
    int32_t rule_line = 0;
    std::string json;  // the fields beyond the texts, as JSON members
};

std::string number(double value, const char* format) {
    if (!std::isfinite(value)) {
        return std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf");
    }
    char text[48];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// The shortest text that reads back as the same float; a string for NaN and
// the infinities, which JSON has no number for.
std::string json_number(float value) {
    if (!std::isfinite(value)) {
        return "\"" + number(value, "%g") + "\"";
    }
    char text[48];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

// ggml's name in lower case, as a recipe writes it.
std::string type_name(int32_t type) {
    std::string name = ggml_type_name(ggml_type(type));
    for (char& c : name) {
        c = char(std::tolower(static_cast<unsigned char>(c)));
    }
    return name;
}

std::string shape_text(const TensorPlan& plan, const char* separator) {
    std::string text;
    for (int32_t d = 0; d < plan.n_dims; ++d) {
        text += (d == 0 ? "" : separator) + std::to_string(plan.ne[size_t(d)]);
    }
    return text;
}

// Why the output type is not the recipe's; empty when it is.
TypeReason type_reason(const Recipe& recipe, const TensorPlan& plan, const SourceList& sources) {
    const int32_t s = plan.only_source >= 0 ? plan.only_source : 0;
    const int32_t source_type = tensor_type(*sources[size_t(s)], plan.source_tensors[size_t(s)]);
    if (!recipe.out.keep && plan.out_type == recipe.out.type) {
        return {};
    }
    if (plan.n_dims == 1) {
        return {"1-D", "one-dimensional tensors are f32"};
    }
    int32_t wanted = recipe.out.type;
    TypeReason reason;
    if (recipe.out.keep) {
        const bool needs_imatrix = ggml_quantize_requires_imatrix(ggml_type(source_type));
        wanted = needs_imatrix ? int32_t(GGML_TYPE_Q8_0) : source_type;
        reason = needs_imatrix ? TypeReason{"keep, no imatrix",
                                            "keep: " + type_name(source_type) +
                                                " needs an importance matrix, q8_0 instead"}
                               : TypeReason{"keep", "keep: the source's type"};
    }
    if (plan.out_type == int32_t(GGML_TYPE_F16) && wanted != plan.out_type) {
        return {"row not in blocks",
                "a row of " + std::to_string(plan.ne[0]) + " is no whole number of " +
                    type_name(wanted) + " blocks (" +
                    std::to_string(ggml_blck_size(ggml_type(wanted))) + "), f16 instead"};
    }
    return reason;
}

std::string weight_text(const std::vector<float>& weights, const char* format) {
    std::string text;
    for (const float w : weights) {
        text += (text.empty() ? "" : ",") + number(w, format);
    }
    return text;
}

std::string json_weights(const std::vector<float>& weights) {
    std::string text;
    for (const float w : weights) {
        text += (text.empty() ? "" : ",") + json_number(w);
    }
    return "[" + text + "]";
}

// The method as a recipe would write it with this tensor's values: t as the
// kernel uses it (clamped), weights by position among the active sources.
void describe_method(const TensorPreview& preview, TensorRow& row) {
    const MethodSpec& spec = preview.active.spec;
    if (preview.active.single >= 0) {
        row.method = "pick " + std::to_string(preview.active.single) +
                     (preview.copied ? " (bytes copied)" : "");
        row.json += ",\"method\":\"pick\",\"pick\":" + std::to_string(preview.active.single) +
                    ",\"copied\":" + (preview.copied ? "true" : "false");
        return;
    }
    const MethodInfo& info = method_info(spec.method);
    row.method = info.word;
    row.json += ",\"method\":\"" + std::string(info.word) + "\"";
    if (info.first == FirstPlace::scalar) {
        row.method += " " + number(method_t(spec), "%g");
        row.json += ",\"t\":" + json_number(method_t(spec));
    }
    if (method_is_weighted(spec.method)) {
        if (!spec.weights.empty()) {
            row.method += " " + weight_text(spec.weights, "%g");
        }
        row.json += ",\"weights\":" + json_weights(spec.weights);
    }
    row.json += ",\"copied\":false";
}

void describe_sources(const RunPreview& preview, const TensorPlan& plan,
                      const TensorPreview& tensor, TensorRow& row) {
    std::string json;
    for (const int32_t s : tensor.active.sources) {
        const SourceModel& source = *preview.sources[size_t(s)];
        const int64_t index = plan.source_tensors[size_t(s)];
        const std::string name = tensor_name(source, index);
        const std::string type = type_name(ggml_type(tensor_type(source, index)));
        row.sources += (row.sources.empty() ? "" : ", ") + std::to_string(s) + ":" + type;
        if (name != plan.name) {
            row.sources += " (" + name + ")";
        }
        // A donor aligned on a shared vocabulary gives only its first rows.
        const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
        const int64_t given = source_row_count(plan, size_t(s));
        if (given < rows) {
            row.sources += " (rows 0-" + std::to_string(given - 1) + ")";
        }
        json += std::string(json.empty() ? "" : ",") + "{\"index\":" + std::to_string(s) +
                ",\"tensor\":\"" + json_escape(name) + "\",\"type\":\"" + type +
                "\",\"rows\":" + std::to_string(given) + "}";
    }
    std::string dropped_json;
    for (size_t s = 0; s < plan.dropped.size(); ++s) {
        if (plan.dropped[s] == DropReason::none) {
            continue;
        }
        const std::string word = drop_reason_word(plan.dropped[s]);
        row.dropped += (row.dropped.empty() ? "" : ", ") + std::to_string(s) + " " + word;
        dropped_json += std::string(dropped_json.empty() ? "" : ",") +
                        "{\"index\":" + std::to_string(s) + ",\"reason\":\"" + word + "\"}";
    }
    row.json += ",\"sources\":[" + json + "],\"dropped\":[" + dropped_json + "]";
}

TensorRow describe_tensor(const RunPreview& preview, size_t i) {
    const TensorPlan& plan = preview.run.plans[i];
    const TensorPreview& tensor = preview.tensors[i];
    TensorRow row;
    row.name = plan.name;
    row.shape = shape_text(plan, "x");
    row.type = type_name(plan.out_type);
    row.type_reason = type_reason(preview.recipe, plan, preview.sources);
    row.rule_line = plan.only_source >= 0 ? 0 : plan.spec.line;
    row.rule = plan.only_source >= 0 ? "stack"
               : plan.spec.line > 0
                   ? "line " + std::to_string(plan.spec.line) + ": " + plan.spec.text
                   : "built-in default";
    describe_method(tensor, row);
    describe_sources(preview, plan, tensor, row);
    row.json += ",\"bytes_read\":" + std::to_string(tensor.bytes_read) +
                ",\"bytes_out\":" + std::to_string(tensor.bytes_out);
    return row;
}

void print_json_tensor(const TensorRow& row, const TensorPlan& plan) {
    std::printf(
        "{\"kind\":\"tensor\",\"name\":\"%s\",\"shape\":[%s],\"type\":\"%s\","
        "\"type_reason\":\"%s\",\"rule_line\":%d,\"rule\":\"%s\"%s}\n",
        json_escape(row.name).c_str(), shape_text(plan, ",").c_str(), row.type.c_str(),
        json_escape(row.type_reason.full).c_str(), row.rule_line, json_escape(row.rule).c_str(),
        row.json.c_str());
}

std::string type_column(const TensorRow& row) {
    return row.type_reason.brief.empty() ? row.type : row.type + " (" + row.type_reason.brief + ")";
}

void print_table(const std::vector<TensorRow>& rows) {
    size_t widths[5] = {6, 5, 4, 6, 7};
    for (const TensorRow& row : rows) {
        const std::string type = type_column(row);
        const size_t sizes[5] = {row.name.size(), row.shape.size(), type.size(), row.method.size(),
                                 row.sources.size()};
        for (size_t c = 0; c < 5; ++c) {
            widths[c] = std::max(widths[c], sizes[c]);
        }
    }
    const auto w = [&](size_t c) { return int(widths[c]); };
    std::printf("%-*s  %-*s  %-*s  %-*s  %-*s  %s\n", w(0), "tensor", w(1), "shape", w(2), "type",
                w(3), "method", w(4), "sources", "rule");
    for (const TensorRow& row : rows) {
        const std::string type = type_column(row);
        std::printf("%-*s  %-*s  %-*s  %-*s  %-*s  %s\n", w(0), row.name.c_str(), w(1),
                    row.shape.c_str(), w(2), type.c_str(), w(3), row.method.c_str(), w(4),
                    row.sources.c_str(), row.rule.c_str());
        if (!row.dropped.empty()) {
            std::printf("%-*s  dropped: %s\n", w(0), "", row.dropped.c_str());
        }
    }
}

std::string mib(uint64_t bytes) {
    return number(double(bytes) / 1048576.0, "%.1f") + " MiB";
}

void print_summary_text(const RunPreview& p) {
    const MemoryEstimate& m = p.memory;
    std::printf("tensors=%zu params=%lld fallback=%lld layers=%d\n", p.run.plans.size(),
                (long long)p.params, (long long)p.fallback, p.run.output_layers);
    std::printf("output: %llu bytes (header %llu)\nread: %llu bytes from the sources\n",
                (unsigned long long)p.output_bytes, (unsigned long long)p.header_bytes,
                (unsigned long long)p.bytes_read);
    std::printf(
        "peak memory: about %s = decoded blocks %s + blended blocks %s + encoded chunk %s + "
        "stream buffer %s + header %s + mapped source chunk %s\n",
        mib(m.total()).c_str(), mib(m.source_floats).c_str(), mib(m.blended).c_str(),
        mib(m.encoded).c_str(), mib(m.stream_buffer).c_str(), mib(m.header).c_str(),
        mib(m.mapped_chunk).c_str());
}

void print_summary_json(const RunPreview& p) {
    const MemoryEstimate& m = p.memory;
    std::printf(
        "{\"kind\":\"summary\",\"ok\":%s,\"message\":\"%s\",\"tensors\":%zu,\"params\":%lld,"
        "\"fallback\":%lld,\"layers\":%d,\"output_bytes\":%llu,\"header_bytes\":%llu,"
        "\"bytes_read\":%llu,\"peak_memory\":%llu,\"memory\":{\"source_floats\":%llu,"
        "\"blended\":%llu,\"encoded\":%llu,\"stream_buffer\":%llu,\"header\":%llu,"
        "\"mapped_chunk\":%llu}}\n",
        p.ok ? "true" : "false", json_escape(p.message).c_str(), p.run.plans.size(),
        (long long)p.params, (long long)p.fallback, p.run.output_layers,
        (unsigned long long)p.output_bytes, (unsigned long long)p.header_bytes,
        (unsigned long long)p.bytes_read, (unsigned long long)m.total(),
        (unsigned long long)m.source_floats, (unsigned long long)m.blended,
        (unsigned long long)m.encoded, (unsigned long long)m.stream_buffer,
        (unsigned long long)m.header, (unsigned long long)m.mapped_chunk);
}

std::vector<std::string> all_warnings(const RunPreview& preview,
                                      const std::vector<std::string>& extra) {
    std::vector<std::string> warnings = extra;
    warnings.insert(warnings.end(), preview.warnings.begin(), preview.warnings.end());
    return warnings;
}

}  // namespace

int print_plan_report(const std::vector<std::string>& sources, const std::string& recipe_text,
                      bool json, const std::vector<std::string>& extra_warnings, int threads) {
    const RunPreview preview = preview_run(sources, recipe_text, threads);
    std::vector<TensorRow> rows;
    for (size_t i = 0; i < preview.tensors.size(); ++i) {
        rows.push_back(describe_tensor(preview, i));
        if (json) {
            print_json_tensor(rows.back(), preview.run.plans[i]);
        }
    }
    const std::vector<std::string> warnings = all_warnings(preview, extra_warnings);
    if (json) {
        for (const std::string& warning : warnings) {
            std::printf("{\"kind\":\"warning\",\"text\":\"%s\"}\n", json_escape(warning).c_str());
        }
        print_summary_json(preview);
    } else {
        if (!rows.empty()) {
            print_table(rows);
        }
        if (preview.ok) {
            print_summary_text(preview);
        }
        for (const std::string& warning : warnings) {
            std::printf("warning: %s\n", warning.c_str());
        }
        std::printf("%s: %s\n", preview.ok ? "OK" : "FAILED", preview.message.c_str());
    }
    return preview.ok ? 0 : 2;
}

void print_run_warnings(const std::vector<std::string>& sources, const std::string& recipe_text,
                        const std::vector<std::string>& extra_warnings) {
    const RunPreview preview = preview_run(sources, recipe_text);
    for (const std::string& warning : all_warnings(preview, extra_warnings)) {
        std::fprintf(stderr, "warning: %s\n", warning.c_str());
    }
    std::fflush(stderr);
}

}  // namespace tevrin
