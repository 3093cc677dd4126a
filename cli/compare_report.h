// The text forms of a comparison: the table for people and one JSON object per
// tensor for programs. Pure functions of the Comparison record.
#pragma once

#include <string>

#include "fuse/compare.h"

namespace tevrin {

// The sources, then per layer and donor the weighted mean cosine and distance per
// role (attention, feed-forward, norm, overall), the tensors outside the blocks as
// layer "rest", every tensor together as "all", and last the tensors that were not
// compared everywhere, each with the reason. "-" marks a group with no figures.
std::string compare_table(const Comparison& comparison);

// One line per tensor, in the record's order:
// {"tensor":..,"layer":..,"role":..,"params":..,"held_by":[..],
//  "donors":[{"source":1,"status":"compared","cosine":..,"distance":..},..]}
// `layer` is -1 outside the blocks; an undefined figure is null; figures are
// printed with 15 significant digits.
std::string compare_json_lines(const Comparison& comparison);

}  // namespace tevrin
