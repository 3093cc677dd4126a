// The naming rule and the keys of a model split into shards: every shard is a
// whole GGUF file named <prefix>-00002-of-00004.gguf (numbers from 1, five digits
// at least), and each holds split.no (u16, from 0), split.count (u16) and
// split.tensors.count (i32, the tensors of all shards together).
//
// Pure functions apart from first_shard_path, which reads a header; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tevrin {

inline constexpr const char* kSplitNoKey = "split.no";
inline constexpr const char* kSplitCountKey = "split.count";
inline constexpr const char* kSplitTensorsKey = "split.tensors.count";

// The path of shard `no` (from 0) of `count`.
std::string shard_path(const std::string& prefix, int32_t no, int32_t count);

// The prefix of `path` when it is named as shard `no` of `count`, else nothing.
std::optional<std::string> shard_prefix(const std::string& path, int32_t no, int32_t count);

// The first shard of the model whose shard `path` is (read from its header and
// name), where the metadata lives; `path` itself for any other file.
std::string first_shard_path(const std::string& path);

}  // namespace tevrin
