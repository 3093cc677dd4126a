#include "fuse/compare_summary.h"

#include <cmath>
#include <map>
#include <vector>

namespace tevrin {

namespace {

// Sums of params x figure, turned into means at the end.
struct MeanSums {
    double cosine = 0.0;
    double distance = 0.0;
    int64_t params = 0;
};

using SumRow = std::array<MeanSums, kSummaryColumns>;

void add_to_row(SumRow& row, const TensorComparison& t, const PairFigures& f) {
    if (f.status != PairStatus::compared || std::isnan(f.cosine) || std::isnan(f.distance)) {
        return;
    }
    auto add = [&](size_t column) {
        row[column].cosine += double(t.params) * f.cosine;
        row[column].distance += double(t.params) * f.distance;
        row[column].params += t.params;
    };
    if (t.role != CompareRole::other) {  // other tensors count only toward the overall column
        add(size_t(t.role));
    }
    add(size_t(kOverallColumn));
}

SummaryRow finish_row(const SumRow& sums) {
    SummaryRow row;
    for (size_t c = 0; c < sums.size(); ++c) {
        if (sums[c].params > 0) {
            row[c].cosine = sums[c].cosine / double(sums[c].params);
            row[c].distance = sums[c].distance / double(sums[c].params);
            row[c].params = sums[c].params;
        }
    }
    return row;
}

}  // namespace

void summarise(Comparison& result) {
    const size_t donors = result.paths.size() - 1;
    std::map<int32_t, std::vector<SumRow>> by_layer;  // -1 sorts first, moved last below
    std::vector<SumRow> overall(donors);
    for (const TensorComparison& t : result.tensors) {
        std::vector<SumRow>& rows = by_layer[t.layer];
        rows.resize(donors);
        for (size_t d = 0; d < donors; ++d) {
            add_to_row(rows[d], t, t.donors[d]);
            add_to_row(overall[d], t, t.donors[d]);
        }
    }
    auto add_layer = [&](int32_t layer, const std::vector<SumRow>& rows) {
        LayerSummary summary{layer, {}};
        for (const SumRow& row : rows) {
            summary.donors.push_back(finish_row(row));
        }
        result.layers.push_back(std::move(summary));
    };
    for (const auto& [layer, rows] : by_layer) {
        if (layer >= 0) {
            add_layer(layer, rows);
        }
    }
    if (by_layer.count(-1) != 0) {
        add_layer(-1, by_layer[-1]);
    }
    for (const SumRow& row : overall) {
        result.overall.push_back(finish_row(row));
    }
}

}  // namespace tevrin
