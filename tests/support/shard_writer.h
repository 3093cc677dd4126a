// Cuts a GGUF file into shards with ggml's own reader and writer, independent of
// the tool's output code, and compares models the way a fused output is judged:
// keys, tensor order, types, shapes and bytes, through the project's reader.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace tevrin::testing {

struct ShardCut {
    int64_t tensors_per_shard = 1;
    int64_t claimed_tensors = -1;  // the split.tensors.count written; -1: the true total
    bool repeat_last = false;      // every shard after the first also starts with the
                                   // previous shard's last tensor
};

// Writes the model at `path` as <prefix>-00001-of-0000N.gguf, ... and returns the
// shard paths in order. All keys go into the first, split.* into each.
std::vector<std::string> write_shards(const std::string& path, const std::string& prefix,
                                      const ShardCut& cut);

// Both models (either may be sharded) have the same keys and values except
// `ignored` ones, and the same tensors in the same order with the same bytes.
void expect_same_model(const std::string& a, const std::string& b,
                       const std::set<std::string>& ignored);

}  // namespace tevrin::testing
