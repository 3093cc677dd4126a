// The files a run writes: one file holding every tensor, or, with a split limit,
// shards named from the output path (out.gguf gives out-00001-of-00003.gguf, ...).
// Every part is planned, with its header complete, before a byte is written.
//
// A shard closes before the tensor that would take it past a limit, so a tensor
// larger than the size limit gets a shard of its own; the size counts tensor data
// with each tensor padded to the alignment, not the header. The first shard holds
// every key, each shard split.no, split.count and split.tensors.count.
//
// Threads: driver thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fuse/fuse.h"
#include "fuse/tensor_plan.h"
#include "model/gguf_handle.h"

namespace tevrin {

struct OutputPart {
    std::string path;
    GgufHandle meta;     // keys and tensor records of this file
    GgmlHandle records;  // the tensors `meta` was given
    size_t first = 0;    // the plans [first, end) go into this file
    size_t end = 0;
};

// Takes the run's metadata (keys only) and adds the tensor records. Fails with
// "tensor name too long: <name>", "tensor <name> has an empty dimension GGUF
// cannot keep" or "too many shards: <n> (at most 65535)".
std::vector<OutputPart> make_output_parts(GgufHandle meta, const std::vector<TensorPlan>& plans,
                                          const std::string& output_path,
                                          const SplitLimits& limits);

// The index of the first tensor of every shard, for tensors of `sizes` bytes.
std::vector<size_t> shard_starts(const std::vector<uint64_t>& sizes, const SplitLimits& limits);

// The path without a final ".gguf", to which the shard numbers are added.
std::string split_output_prefix(const std::string& output_path);

// "500M", "4G", "1000000": a positive count of bytes, K, M and G (either case)
// meaning 10^3, 10^6 and 10^9. Nothing for anything else.
std::optional<uint64_t> parse_byte_size(const std::string& text);

}  // namespace tevrin
