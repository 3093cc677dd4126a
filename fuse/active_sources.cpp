#include "fuse/active_sources.h"

#include <algorithm>
#include <cassert>
#include <stdexcept>

#include "recipe/method_table.h"

namespace tevrin {
namespace {

std::vector<int32_t> feeding_sources(const TensorPlan& plan) {
    std::vector<int32_t> feeding;
    for (size_t s = 0; s < plan.source_tensors.size(); ++s) {
        if (plan.source_tensors[s] >= 0) {
            feeding.push_back(int32_t(s));
        }
    }
    if (feeding.empty() || feeding[0] != 0) {
        throw std::runtime_error("base is missing tensor " + plan.name);
    }
    return feeding;
}

// The one source a tensor comes from unblended, or -1 when it is blended.
int32_t single_source(const TensorPlan& plan, const std::vector<int32_t>& feeding) {
    if (plan.only_source >= 0) {
        return plan.only_source;
    }
    if (plan.spec.method == BlendMethod::pick) {
        const auto it = std::find(feeding.begin(), feeding.end(), plan.spec.pick);
        return it != feeding.end() ? *it : feeding[0];
    }
    return feeding.size() == 1 ? feeding[0] : -1;
}

std::vector<float> weights_by_position(const MethodSpec& spec,
                                       const std::vector<int32_t>& sources) {
    const float fill = method_info(spec.method).weight_fill;
    std::vector<float> moved;
    moved.reserve(sources.size());
    for (const int32_t s : sources) {
        moved.push_back(size_t(s) < spec.weights.size() ? spec.weights[size_t(s)] : fill);
    }
    return moved;
}

}  // namespace

ActiveSources active_sources(const TensorPlan& plan) {
    ActiveSources active;
    active.spec = plan.spec;
    std::vector<int32_t> feeding;
    if (plan.only_source < 0) {
        feeding = feeding_sources(plan);
    }
    active.single = single_source(plan, feeding);
    if (active.single >= 0) {
        active.sources = {active.single};
        active.spec.method = BlendMethod::pick;
        active.spec.pick = 0;
        active.spec.weights.clear();
        return active;
    }
    active.sources = std::move(feeding);
    if (method_is_weighted(active.spec.method) && !active.spec.weights.empty()) {
        active.spec.weights = weights_by_position(plan.spec, active.sources);
    }
    assert(active.spec.weights.empty() || active.spec.weights.size() == active.sources.size());
    return active;
}

std::vector<RowSpan> row_spans(const TensorPlan& plan) {
    const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    std::vector<int64_t> cuts = {0, rows};
    for (size_t s = 0; s < plan.source_tensors.size(); ++s) {
        const int64_t given = source_row_count(plan, s);
        if (given > 0 && given < rows) {
            cuts.push_back(given);
        }
    }
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    if (cuts.size() <= 2) {
        return {RowSpan{0, rows, active_sources(plan)}};
    }
    std::vector<RowSpan> spans;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
        TensorPlan part = plan;
        for (size_t s = 0; s < part.source_tensors.size(); ++s) {
            if (source_row_count(plan, s) <= cuts[i]) {
                part.source_tensors[s] = -1;
            }
        }
        spans.push_back(RowSpan{cuts[i], cuts[i + 1], active_sources(part)});
    }
    return spans;
}

}  // namespace tevrin
