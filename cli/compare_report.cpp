#include "cli/compare_report.h"

#include <cmath>
#include <cstdio>

#include "cli/format_text.h"
#include "model/inspect.h"

namespace tevrin {

namespace {

std::string json_number(double value) {
    return std::isfinite(value) ? text_of("%.15g", value) : "null";
}

// One role's pair of figures, 19 characters wide, or "-" for a group without any.
std::string mean_cells(const FigureMean& mean) {
    if (mean.params == 0) {
        return text_of("%9s %9s", "-", "");
    }
    return text_of("%9.6f %9.6f", mean.cosine, mean.distance);
}

std::string summary_line(const std::string& layer, size_t donor, const SummaryRow& row) {
    std::string line = text_of("%5s %4zu ", layer.c_str(), donor);
    for (const FigureMean& mean : row) {
        line += " " + mean_cells(mean);
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    return line + "\n";
}

std::string reason_text(const TensorComparison& t) {
    std::string text;
    auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (!t.present[0]) {
        std::string holders;
        for (size_t s = 1; s < t.present.size(); ++s) {
            if (t.present[s]) {
                holders += (holders.empty() ? "" : " ") + std::to_string(s);
            }
        }
        add("not in the reference; held by " + holders);
        return text;
    }
    for (size_t d = 0; d < t.donors.size(); ++d) {
        const PairFigures& f = t.donors[d];
        const std::string who = "source " + std::to_string(d + 1) + " ";
        switch (f.status) {
            case PairStatus::compared:
                if (std::isnan(f.cosine) || std::isnan(f.distance)) {
                    add(who + "figures undefined (all zeros or values not finite)");
                }
                break;
            case PairStatus::missing:
                add(who + "missing");
                break;
            case PairStatus::shape_differs:
                add(who + "shape differs");
                break;
            case PairStatus::not_decodable:
                add(who + "type does not decode");
                break;
            case PairStatus::no_reference:
                break;
        }
    }
    return text;
}

}  // namespace

std::string compare_table(const Comparison& c) {
    std::string out = "reference  " + c.paths[0] + "\n";
    for (size_t s = 1; s < c.paths.size(); ++s) {
        out += text_of("source %-3zu ", s) + c.paths[s] + "\n";
    }
    out +=
        "\ncosine similarity and relative L2 distance |s - r| / |r| to the reference,\n"
        "weighted by parameters per layer and role\n\n";
    out += text_of("%-5s %4s  %-19s %-19s %-19s %s\n", "layer", "src", "attention", "feed-forward",
                   "norm", "overall");
    out += text_of("%11s", "");
    for (int32_t column = 0; column < kSummaryColumns; ++column) {
        out += text_of(" %9s %9s", "cosine", "distance");
    }
    out += "\n";
    for (const LayerSummary& layer : c.layers) {
        const std::string name = layer.layer >= 0 ? std::to_string(layer.layer) : "rest";
        for (size_t d = 0; d < layer.donors.size(); ++d) {
            out += summary_line(name, d + 1, layer.donors[d]);
        }
    }
    for (size_t d = 0; d < c.overall.size(); ++d) {
        out += summary_line("all", d + 1, c.overall[d]);
    }
    std::string odd;
    for (const TensorComparison& t : c.tensors) {
        const std::string reason = reason_text(t);
        if (!reason.empty()) {
            odd += "  " + t.name + ": " + reason + "\n";
        }
    }
    if (!odd.empty()) {
        out += "\ntensors not compared with every source:\n" + odd;
    }
    return out;
}

std::string compare_json_lines(const Comparison& c) {
    std::string out;
    for (const TensorComparison& t : c.tensors) {
        out += "{\"tensor\":\"" + json_escape(t.name) + "\",\"layer\":" + std::to_string(t.layer) +
               ",\"role\":\"" + role_word(t.role) + "\",\"params\":" + std::to_string(t.params) +
               ",\"held_by\":[";
        bool first = true;
        for (size_t s = 0; s < t.present.size(); ++s) {
            if (t.present[s]) {
                out += (first ? "" : ",") + std::to_string(s);
                first = false;
            }
        }
        out += "],\"donors\":[";
        for (size_t d = 0; d < t.donors.size(); ++d) {
            const PairFigures& f = t.donors[d];
            out += (d == 0 ? "{\"source\":" : ",{\"source\":") + std::to_string(d + 1) +
                   ",\"status\":\"" + status_word(f.status) + "\"";
            if (f.status == PairStatus::compared) {
                out += ",\"cosine\":" + json_number(f.cosine) +
                       ",\"distance\":" + json_number(f.distance);
            }
            out += "}";
        }
        out += "]}\n";
    }
    return out;
}

}  // namespace tevrin
