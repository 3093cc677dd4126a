// The output file's metadata: the base's keys (without its split.* keys), the borrowed chat
// template, the replaced name / file type / quantization version / block count, and the run's own
// record under "tevrin.".
//
// Threads: driver thread only.
#pragma once

#include <string>
#include <vector>

#include "fuse/tensor_plan.h"
#include "model/gguf_handle.h"

namespace tevrin {

// Builds the output context with every key final. Its data alignment equals the
// base's (a base with a general.alignment key keeps that layout). A stacked run
// rebuilds the base's per-layer arrays (layer_arrays.h). May append the notes
// "chat template borrowed from source <i>" and those of the per-layer arrays;
// fails like rebuild_layer_arrays.
GgufHandle make_output_metadata(const SourceList& sources, const Recipe& recipe,
                                const std::string& recipe_text, std::vector<std::string>& notes);

}  // namespace tevrin
