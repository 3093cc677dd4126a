// Per-layer metadata arrays of a stacked output. An array of the base under
// "<arch>." with one entry per base layer describes the layers one by one (head
// counts, feed-forward lengths, sliding-window patterns); a stack rebuilds each
// such array with one entry per output layer, taken from where that layer came.
//
// Threads: driver thread only, while the output metadata is built.
#pragma once

#include <string>
#include <vector>

#include "fuse/tensor_plan.h"

namespace tevrin {

// The keys of the base's per-layer arrays, in the base's key order.
std::vector<std::string> per_layer_keys(const SourceModel& base);

// Sets every per-layer array of the base in `out` anew for the stack of
// `recipe`: output layer i takes the entry of slice i's source at the slice's
// layer when that source holds the key as an array of the same element type
// with one entry per its own layer; otherwise the base's entry of the slice's
// template layer, with the note "per-layer <key> taken from the base for source
// <s>". Other arrays are left alone. Fails with "stack not supported: per-layer
// metadata <key>" when the base has no entry for a template layer (a base of no
// layers) or the array holds arrays.
void rebuild_layer_arrays(gguf_context* out, const SourceList& sources, const Recipe& recipe,
                          std::vector<std::string>& notes);

}  // namespace tevrin
