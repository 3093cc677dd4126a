// The output header's tensor records: one per plan, in plan order, with the
// planned name, type and shape. Adding them fixes every tensor's place in the
// output file before any data exists.
//
// Driver thread only.
#pragma once

#include <gguf.h>

#include <vector>

#include "fuse/tensor_plan.h"
#include "model/gguf_handle.h"

namespace tevrin {

// Adds the records to `out` and returns the ggml context that holds them (it
// must outlive `out`'s use). Fails with "tensor name too long: <name>" or
// "tensor <name> has an empty dimension GGUF cannot keep".
GgmlHandle add_tensor_records(gguf_context* out, const std::vector<TensorPlan>& plans);

// The same for the plans [first, end) only: the tensors of one output shard.
GgmlHandle add_tensor_records(gguf_context* out, const std::vector<TensorPlan>& plans, size_t first,
                              size_t end);

}  // namespace tevrin
