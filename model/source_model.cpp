#include "model/source_model.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>
#include <optional>
#include <stdexcept>

#include "model/gguf_handle.h"
#include "model/shard_names.h"

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
void check_tensor_bounds(const SourceShard& s) {
    const int64_t n = gguf_get_n_tensors(s.gguf);
    for (int64_t i = 0; i < n; ++i) {
        const uint64_t offset = gguf_get_tensor_offset(s.gguf, i);
        const uint64_t size = gguf_get_tensor_size(s.gguf, i);
        const uint64_t available =
            s.mapping_size >= s.data_offset ? s.mapping_size - s.data_offset : 0;
        if (offset > available || size > available - offset) {
            throw std::runtime_error("tensor data beyond end of file: " + s.path);
        }
    }
}

// Fills `s` step by step, so that whatever was acquired before a failure is
// released with the model.
void open_shard(SourceShard& s, const std::string& path) {
    s.path = path;
    // The header reader refuses directories, FIFOs and devices before opening them.
    s.gguf = read_gguf_header(path.c_str()).release();
    if (s.gguf == nullptr) {
        throw std::runtime_error("not a valid GGUF: " + path);
    }
    s.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (s.fd < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    struct stat st = {};
    fstat(s.fd, &st);
    s.mapping_size = uint64_t(st.st_size);
    void* m = mmap(nullptr, s.mapping_size, PROT_READ, MAP_SHARED, s.fd, 0);
    if (m == MAP_FAILED) {
        throw std::runtime_error("mmap failed for " + path);
    }
    s.mapping = static_cast<const uint8_t*>(m);
    madvise(m, s.mapping_size, MADV_SEQUENTIAL);
    s.data_offset = gguf_get_data_offset(s.gguf);
    check_tensor_bounds(s);
}

struct SplitKeys {
    int32_t no = 0;
    int32_t count = 1;
    int64_t tensors = 0;
};

std::optional<int64_t> read_key(const gguf_context* gguf, const char* key, gguf_type type) {
    const int64_t id = gguf_find_key(gguf, key);
    if (id < 0 || gguf_get_kv_type(gguf, id) != type) {
        return std::nullopt;
    }
    return type == GGUF_TYPE_UINT16 ? int64_t(gguf_get_val_u16(gguf, id))
                                    : int64_t(gguf_get_val_i32(gguf, id));
}

// A file counts as a shard when split.count is a u16 above 1; one that says 0 or
// 1 (a merged or never-split file) stands alone. Nothing for a shard whose other
// two keys are missing, of another type or out of range.
std::optional<SplitKeys> read_split_keys(const gguf_context* gguf) {
    const auto count = read_key(gguf, kSplitCountKey, GGUF_TYPE_UINT16);
    if (!count || *count <= 1) {
        return SplitKeys{};
    }
    const auto no = read_key(gguf, kSplitNoKey, GGUF_TYPE_UINT16);
    const auto tensors = read_key(gguf, kSplitTensorsKey, GGUF_TYPE_INT32);
    if (!no || *no >= *count || !tensors || *tensors < 0) {
        return std::nullopt;
    }
    return SplitKeys{int32_t(*no), int32_t(*count), *tensors};
}

bool is_missing(const std::string& path) {
    struct stat st = {};
    return lstat(path.c_str(), &st) != 0 && errno == ENOENT;
}

// Opens every shard but the one given, which is already open at `keys.no`.
void open_other_shards(SourceModel& m, const std::string& prefix, const SplitKeys& keys) {
    for (int32_t no = 0; no < keys.count; ++no) {
        if (no == keys.no) {
            continue;
        }
        const std::string path = shard_path(prefix, no, keys.count);
        if (is_missing(path)) {
            throw std::runtime_error("missing shard " + path);
        }
        SourceShard& shard = m.shards[size_t(no)];
        open_shard(shard, path);
        const auto found = read_split_keys(shard.gguf);
        if (!found || found->count != keys.count || found->no != no ||
            found->tensors != keys.tensors) {
            throw std::runtime_error("shard of another model: " + path);
        }
    }
}

void open_split_model(SourceModel& m, const SplitKeys& keys) {
    const SourceShard given = m.shards[0];
    const auto prefix = shard_prefix(given.path, keys.no, keys.count);
    if (!prefix) {
        throw std::runtime_error("shard " + given.path + " is not named <prefix>" +
                                 shard_path("", keys.no, keys.count));
    }
    m.shards.assign(size_t(keys.count), SourceShard{});
    m.shards[size_t(keys.no)] = given;
    open_other_shards(m, *prefix, keys);
}

void index_tensors(SourceModel& m) {
    for (size_t k = 0; k < m.shards.size(); ++k) {
        const SourceShard& shard = m.shards[k];
        const int64_t n = gguf_get_n_tensors(shard.gguf);
        for (int64_t i = 0; i < n; ++i) {
            const char* name = gguf_get_tensor_name(shard.gguf, i);
            if (!m.tensor_index.emplace(name, int64_t(m.tensors.size())).second) {
                throw std::runtime_error(std::string("duplicate tensor ") + name + " in shard " +
                                         shard.path);
            }
            m.tensors.push_back(TensorPlace{int32_t(k), i});
        }
    }
}

const SourceShard& shard_of(const SourceModel& source, int64_t index) {
    assert(index >= 0 && size_t(index) < source.tensors.size());
    return source.shards[size_t(source.tensors[size_t(index)].shard)];
}

int64_t index_in_shard(const SourceModel& source, int64_t index) {
    return source.tensors[size_t(index)].index;
}

}  // namespace

SourceModel::~SourceModel() {
    for (const SourceShard& s : shards) {
        if (s.mapping != nullptr) {
            munmap(const_cast<uint8_t*>(s.mapping), s.mapping_size);
        }
        if (s.fd >= 0) {
            close(s.fd);
        }
        if (s.gguf != nullptr) {
            gguf_free(s.gguf);
        }
    }
}

void SourceModel::open(const std::string& source_path) {
    path = source_path;
    shards.resize(1);
    open_shard(shards[0], path);
    const auto keys = read_split_keys(shards[0].gguf);
    if (!keys) {
        throw std::runtime_error("shard without a valid split.no or split.tensors.count: " + path);
    }
    if (keys->count > 1) {
        open_split_model(*this, *keys);
    }
    index_tensors(*this);
    if (keys->count > 1 && int64_t(tensors.size()) != keys->tensors) {
        throw std::runtime_error("tensor count does not add up: " + shards[0].path + " promises " +
                                 std::to_string(keys->tensors) + " tensors, its " +
                                 std::to_string(keys->count) + " shards hold " +
                                 std::to_string(tensors.size()));
    }
    gguf = shards[0].gguf;
    arch = read_arch(gguf);
    n_layer = read_block_count(gguf, arch);
}

int64_t tensor_count(const SourceModel& source) {
    return int64_t(source.tensors.size());
}

const char* tensor_name(const SourceModel& source, int64_t index) {
    return gguf_get_tensor_name(shard_of(source, index).gguf, index_in_shard(source, index));
}

int32_t tensor_type(const SourceModel& source, int64_t index) {
    return int32_t(
        gguf_get_tensor_type(shard_of(source, index).gguf, index_in_shard(source, index)));
}

size_t tensor_size(const SourceModel& source, int64_t index) {
    return gguf_get_tensor_size(shard_of(source, index).gguf, index_in_shard(source, index));
}

std::array<int64_t, 4> tensor_shape(const SourceModel& source, int64_t index) {
    const int64_t* ne =
        gguf_get_tensor_ne(shard_of(source, index).gguf, index_in_shard(source, index));
    return {ne[0], ne[1], ne[2], ne[3]};
}

int tensor_fd(const SourceModel& source, int64_t index) {
    return shard_of(source, index).fd;
}

uint64_t tensor_file_offset(const SourceModel& source, int64_t index) {
    const SourceShard& shard = shard_of(source, index);
    return shard.data_offset + gguf_get_tensor_offset(shard.gguf, index_in_shard(source, index));
}

const uint8_t* tensor_data(const SourceModel& source, int64_t index) {
    return shard_of(source, index).mapping + tensor_file_offset(source, index);
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
