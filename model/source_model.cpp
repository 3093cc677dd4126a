#include "model/source_model.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <stdexcept>

#include "model/gguf_handle.h"

namespace tevrin {

namespace {

// A key is read only when it holds the type its getter expects. An architecture
// that is not a string counts as absent ("unknown"), and so does a block count
// that is not a uint32 (0 layers): the file still opens, as nothing else in it
// depends on those two values.
std::string read_arch(const gguf_context* gguf) {
    return gguf_string_or(gguf, "general.architecture", "unknown");
}

// A count above the signed 32-bit range, which every user compares as signed,
// counts as absent too.
int32_t read_block_count(const gguf_context* gguf, const std::string& arch) {
    const int64_t id = gguf_find_key(gguf, (arch + ".block_count").c_str());
    if (id < 0 || gguf_get_kv_type(gguf, id) != GGUF_TYPE_UINT32) {
        return 0;
    }
    const uint32_t count = gguf_get_val_u32(gguf, id);
    return count > uint32_t(INT32_MAX) ? 0 : int32_t(count);
}

// The header parse checks that tensor offsets are consecutive and aligned, but not
// that the data fits in the file: every tensor is checked here, before anything
// reads through the mapping.
void check_tensor_bounds(const SourceModel& m) {
    const int64_t n = gguf_get_n_tensors(m.gguf);
    for (int64_t i = 0; i < n; ++i) {
        const uint64_t offset = gguf_get_tensor_offset(m.gguf, i);
        const uint64_t size = gguf_get_tensor_size(m.gguf, i);
        const uint64_t available =
            m.mapping_size >= m.data_offset ? m.mapping_size - m.data_offset : 0;
        if (offset > available || size > available - offset) {
            throw std::runtime_error("tensor data beyond end of file: " + m.path);
        }
    }
}

}  // namespace

SourceModel::~SourceModel() {
    if (mapping != nullptr) {
        munmap(const_cast<uint8_t*>(mapping), mapping_size);
    }
    if (fd >= 0) {
        close(fd);
    }
    if (gguf != nullptr) {
        gguf_free(gguf);
    }
}

void SourceModel::open(const std::string& source_path) {
    path = source_path;
    // The header reader refuses directories, FIFOs and devices before opening them.
    gguf = read_gguf_header(path.c_str()).release();
    if (gguf == nullptr) {
        throw std::runtime_error("not a valid GGUF: " + path);
    }
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    struct stat st = {};
    fstat(fd, &st);
    mapping_size = uint64_t(st.st_size);
    void* m = mmap(nullptr, mapping_size, PROT_READ, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
        throw std::runtime_error("mmap failed for " + path);
    }
    mapping = static_cast<const uint8_t*>(m);
    madvise(m, mapping_size, MADV_SEQUENTIAL);
    data_offset = gguf_get_data_offset(gguf);
    check_tensor_bounds(*this);
    arch = read_arch(gguf);
    n_layer = read_block_count(gguf, arch);
    const int64_t n = gguf_get_n_tensors(gguf);
    for (int64_t i = 0; i < n; ++i) {
        tensor_index[gguf_get_tensor_name(gguf, i)] = i;
    }
}

std::array<int64_t, 4> tensor_shape(const SourceModel& source, int64_t index) {
    const int64_t* ne = gguf_get_tensor_ne(source.gguf, index);
    return {ne[0], ne[1], ne[2], ne[3]};
}

uint64_t tensor_file_offset(const SourceModel& source, int64_t index) {
    return source.data_offset + gguf_get_tensor_offset(source.gguf, index);
}

const uint8_t* tensor_data(const SourceModel& source, int64_t index) {
    return source.mapping + tensor_file_offset(source, index);
}

void release_pages(const uint8_t* begin, size_t size) {
    static const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t lo = (reinterpret_cast<uintptr_t>(begin) + page - 1) / page * page;
    const uintptr_t hi = (reinterpret_cast<uintptr_t>(begin) + size) / page * page;
    if (hi > lo) {
        madvise(reinterpret_cast<void*>(lo), hi - lo, MADV_DONTNEED);
    }
}

}  // namespace tevrin
