#include "model/shard_names.h"

#include <cstdio>

#include "model/gguf_handle.h"

namespace tevrin {

namespace {

std::string shard_suffix(int32_t no, int32_t count) {
    char text[40];
    std::snprintf(text, sizeof text, "-%05d-of-%05d.gguf", int(no) + 1, int(count));
    return text;
}

}  // namespace

std::string shard_path(const std::string& prefix, int32_t no, int32_t count) {
    return prefix + shard_suffix(no, count);
}

std::optional<std::string> shard_prefix(const std::string& path, int32_t no, int32_t count) {
    const std::string suffix = shard_suffix(no, count);
    if (path.size() <= suffix.size() ||
        path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    return path.substr(0, path.size() - suffix.size());
}

std::string first_shard_path(const std::string& path) {
    const GgufHandle header = read_gguf_header(path.c_str());
    if (!header) {
        return path;
    }
    auto read_u16 = [&](const char* key) {
        const int64_t id = gguf_find_key(header.get(), key);
        return id >= 0 && gguf_get_kv_type(header.get(), id) == GGUF_TYPE_UINT16
                   ? int32_t(gguf_get_val_u16(header.get(), id))
                   : -1;
    };
    const int32_t no = read_u16(kSplitNoKey), count = read_u16(kSplitCountKey);
    const auto prefix = count > 1 && no > 0 ? shard_prefix(path, no, count) : std::nullopt;
    return prefix ? shard_path(*prefix, 0, count) : path;
}

}  // namespace tevrin
