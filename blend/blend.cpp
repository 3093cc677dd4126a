#include "blend/blend.h"

#include <algorithm>

#include "blend/methods.h"

namespace tevrin {

std::vector<float> fit_weights(const std::vector<float>& weights, int64_t count, float fill) {
    std::vector<float> fitted(static_cast<size_t>(count > 0 ? count : 0), fill);
    for (size_t k = 0; k < fitted.size() && k < weights.size(); ++k) {
        fitted[k] = weights[k];
    }
    return fitted;
}

void blend_rows(const MethodSpec& spec, uint64_t seed, int64_t first_row,
                const std::vector<const float*>& sources, float* out, int64_t rows,
                int64_t row_len) {
    if (rows <= 0 || row_len <= 0 || sources.empty()) {
        return;
    }
    const BlendCall call{spec, seed, first_row, sources, out, rows, row_len};
    switch (spec.method) {
        case BlendMethod::linear:
            return blend_linear(call);
        case BlendMethod::slerp:
            return blend_slerp(call);
        case BlendMethod::ties:
            return blend_ties(call);
        case BlendMethod::dare:
            return blend_dare(call);
        case BlendMethod::pick:
            return blend_pick(call);
        case BlendMethod::chaos:
            return blend_chaos(call);
        case BlendMethod::task:
            return blend_task(call);
        case BlendMethod::breadcrumbs:
            return blend_breadcrumbs(call);
        case BlendMethod::della:
            return blend_della(call);
        case BlendMethod::median:
            return blend_median(call);
        case BlendMethod::nearswap:
            return blend_nearswap(call);
    }
    // A method number outside the enum cannot come from the parser; take the base.
    std::copy(sources[0], sources[0] + rows * row_len, out);
}

}  // namespace tevrin
