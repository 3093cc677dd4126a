// One GGUF source of a fusion run: parsed header, read-only mapping of the whole
// file, and a name-to-position index of its tensors.
//
// Made empty, then filled once by open(); never copied or moved, read-only after
// open() returns, and released on destruction in any state. Tensor i's bytes lie at
// mapping + data_offset + gguf_get_tensor_offset(gguf, i), gguf_get_tensor_size
// bytes long; open() has checked that every tensor lies inside the mapping.
//
// Threads: after open() returns, any thread may read it concurrently.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <gguf.h>

namespace tevrin {

struct SourceModel {
    std::string path;
    gguf_context* gguf = nullptr;
    int fd = -1;
    const uint8_t* mapping = nullptr;
    uint64_t mapping_size = 0;
    uint64_t data_offset = 0;
    std::string arch;     // general.architecture, or "unknown"
    int32_t n_layer = 0;  // <arch>.block_count, or 0 (also above INT32_MAX)
    std::map<std::string, int64_t> tensor_index;

    SourceModel() = default;
    SourceModel(const SourceModel&) = delete;
    SourceModel& operator=(const SourceModel&) = delete;
    ~SourceModel();

    // Fails with "not a valid GGUF: <path>" (also for a directory, FIFO or device,
    // refused before it is opened), "cannot open <path>", "mmap failed for <path>",
    // or "tensor data beyond end of file: <path>".
    void open(const std::string& source_path);
};

// The four dimensions of tensor `index`, 1 beyond its rank.
std::array<int64_t, 4> tensor_shape(const SourceModel& source, int64_t index);

// Where tensor `index` lies in the source file, and its bytes in the mapping.
uint64_t tensor_file_offset(const SourceModel& source, int64_t index);
const uint8_t* tensor_data(const SourceModel& source, int64_t index);

// Drops this process's mapping of the whole pages inside [begin, begin + size).
// The pages stay in the page cache and fault back in if read again, so memory in
// use stays at the size of a chunk however large the sources are.
void release_pages(const uint8_t* begin, size_t size);

}  // namespace tevrin
