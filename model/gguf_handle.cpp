#include "model/gguf_handle.h"

#include <cstring>
#include <string>
#include <vector>

namespace tevrin {

namespace {

void discard_log(ggml_log_level, const char*, void*) {}

template <typename T>
void append_le(std::vector<uint8_t>& out, T value) {
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

}  // namespace

GgufHandle read_gguf_header(const char* path) {
    silence_ggml_log();
    gguf_init_params params = {true, nullptr};
    return GgufHandle(gguf_init_from_file(path, params));
}

void silence_ggml_log() { ggml_log_set(discard_log, nullptr); }

const char* gguf_string_or(const gguf_context* ctx, const char* key, const char* fallback) {
    const int64_t id = gguf_find_key(ctx, key);
    if (id < 0 || gguf_get_kv_type(ctx, id) != GGUF_TYPE_STRING) {
        return fallback;
    }
    return gguf_get_val_str(ctx, id);
}

GgufHandle empty_gguf_with_alignment(uint32_t alignment) {
    // The library takes its layout alignment from the key only while parsing, so
    // the context is parsed from a header that holds just that key.
    static const std::string key = "general.alignment";
    std::vector<uint8_t> header = {'G', 'G', 'U', 'F'};
    append_le<uint32_t>(header, 3);  // version
    append_le<int64_t>(header, 0);   // tensors
    append_le<int64_t>(header, 1);   // keys
    append_le<uint64_t>(header, key.size());
    header.insert(header.end(), key.begin(), key.end());
    append_le<uint32_t>(header, GGUF_TYPE_UINT32);
    append_le<uint32_t>(header, alignment);
    silence_ggml_log();
    gguf_init_params params = {true, nullptr};
    return GgufHandle(gguf_init_from_buffer(header.data(), header.size(), params));
}

}  // namespace tevrin
