// One GGUF source of a fusion run: a model in one file, or split into shards.
// Each shard's header is parsed and its whole file mapped read-only; the tensors
// of all shards form one index in shard order (the order a merged file would
// have), and the metadata keys are those of the first shard.
//
// Made empty, then filled once by open(); never copied or moved, read-only after
// open() returns, and released on destruction in any state. Tensor bytes are
// reached through the accessors below, which resolve the shard; open() has checked
// that every tensor lies inside its shard's mapping.
//
// Threads: after open() returns, any thread may read it concurrently.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gguf.h>

namespace tevrin {

// One file of a source. Owned by its SourceModel, which releases it.
struct SourceShard {
    std::string path;
    gguf_context* gguf = nullptr;
    int fd = -1;
    const uint8_t* mapping = nullptr;
    uint64_t mapping_size = 0;
    uint64_t data_offset = 0;
};

// Where a tensor of the source lies: its shard and its index in that shard.
struct TensorPlace {
    int32_t shard = 0;
    int64_t index = 0;
};

struct SourceModel {
    std::string path;              // as the user gave it (any shard of a split model)
    gguf_context* gguf = nullptr;  // the first shard's header: read keys here, not tensors
    std::vector<SourceShard> shards;
    std::vector<TensorPlace> tensors;             // by source-wide tensor index
    std::string arch;                             // general.architecture, or "unknown"
    int32_t n_layer = 0;                          // <arch>.block_count, or 0 (also above INT32_MAX)
    std::map<std::string, int64_t> tensor_index;  // name to source-wide index

    SourceModel() = default;
    SourceModel(const SourceModel&) = delete;
    SourceModel& operator=(const SourceModel&) = delete;
    ~SourceModel();

    // Fails with "not a valid GGUF: <path>" (also for a directory, FIFO or device,
    // refused before it is opened), "cannot open <path>", "mmap failed for <path>",
    // or "tensor data beyond end of file: <path>", for any shard; for a split
    // model also with "shard <path> is not named <prefix>-NNNNN-of-NNNNN.gguf",
    // "missing shard <path>", "shard of another model: <path>", "duplicate tensor
    // <name> in shard <path>" and "tensor count does not add up: <path> ...".
    void open(const std::string& source_path);
};

int64_t tensor_count(const SourceModel& source);
const char* tensor_name(const SourceModel& source, int64_t index);
int32_t tensor_type(const SourceModel& source, int64_t index);
size_t tensor_size(const SourceModel& source, int64_t index);

// The four dimensions of tensor `index`, 1 beyond its rank.
std::array<int64_t, 4> tensor_shape(const SourceModel& source, int64_t index);

// The file that holds tensor `index`, where the tensor lies in it, and its bytes
// in that file's mapping.
int tensor_fd(const SourceModel& source, int64_t index);
uint64_t tensor_file_offset(const SourceModel& source, int64_t index);
const uint8_t* tensor_data(const SourceModel& source, int64_t index);

// Drops this process's mapping of the whole pages inside [begin, begin + size).
// The pages stay in the page cache and fault back in if read again, so memory in
// use stays at the size of a chunk however large the sources are.
void release_pages(const uint8_t* begin, size_t size);

}  // namespace tevrin
