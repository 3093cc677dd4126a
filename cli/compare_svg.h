// The comparison as a picture: a plain SVG heatmap, one panel per donor, layers
// down (the tensors outside the blocks as a last row "rest"), roles across
// (attention, feed-forward, norm, all). A cell's colour is the parameter-weighted
// 1 - cosine of its group on a log scale whose decades are chosen from the data
// and printed in the legend; exactly 0 and "no tensor" have colours of their own.
// Every cell is a <rect class="cell"> with a <title> giving its figures.
#pragma once

#include <string>

#include "fuse/compare.h"

namespace tevrin {

std::string compare_svg(const Comparison& comparison);

// The decades of the colour scale: 10^low .. 10^high, low < high <= 0, for the
// smallest and largest positive value of 1 - cosine in the picture (-6 .. 0 when
// there is none); low is at least -12.
struct LogScale {
    int32_t low = -6;
    int32_t high = 0;
};
LogScale svg_log_scale(const Comparison& comparison);

}  // namespace tevrin
