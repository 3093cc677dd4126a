#include "blend/blend.h"

#include <cassert>
#include <iterator>

#include "blend/methods.h"
#include "recipe/method_table.h"

namespace tevrin {
namespace {

using Kernel = void (*)(const BlendCall&);

// In enum order, like the method table.
constexpr Kernel kKernels[] = {
    blend_linear, blend_slerp,   blend_ties,       blend_dare,
    blend_pick,   blend_chaos,   blend_task,       blend_breadcrumbs,
    blend_della,  blend_median,  blend_nearswap,   blend_model_stock,
    blend_sce,    blend_karcher, blend_multislerp, blend_nuslerp,
};
static_assert(std::size(kKernels) == size_t(kMethodCount),
              "one kernel per BlendMethod, in enum order");

}  // namespace

std::vector<float> fit_weights(const std::vector<float>& weights, int64_t count, float fill) {
    std::vector<float> fitted(static_cast<size_t>(count > 0 ? count : 0), fill);
    for (size_t k = 0; k < fitted.size() && k < weights.size(); ++k) {
        fitted[k] = weights[k];
    }
    return fitted;
}

std::vector<float> method_weights(const MethodSpec& spec, size_t count) {
    const float fill = spec.weights.empty() ? 1.0f : method_info(spec.method).weight_fill;
    return fit_weights(spec.weights, static_cast<int64_t>(count), fill);
}

void blend_rows(const MethodSpec& spec, uint64_t seed, int64_t first_row,
                const std::vector<const float*>& sources, float* out, int64_t rows,
                int64_t row_len) {
    if (rows <= 0 || row_len <= 0 || sources.empty()) {
        return;
    }
    const auto index = static_cast<size_t>(spec.method);
    assert(index < std::size(kKernels) && "method outside the table");
    kKernels[index](BlendCall{spec, seed, first_row, sources, out, rows, row_len});
}

}  // namespace tevrin
