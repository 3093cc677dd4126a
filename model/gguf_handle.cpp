#include "model/gguf_handle.h"

#include <sys/stat.h>

#include <cstring>
#include <set>
#include <string>
#include <string_view>
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

// The library's parser means to refuse shapes whose element count overflows, but
// lets one through when the wrapped product is 0 (2^40 x 2^40), and takes huge
// dimensions beside a 0. Row and byte counts made from such a shape would
// overflow, so the product of the dimensions, a 0 counted as 1, is held to 2^60:
// every size computed from it then fits in 64 bits for any type.
bool shapes_in_range(const gguf_context* ctx) {
    constexpr int64_t kLargest = int64_t(1) << 60;
    const int64_t n = gguf_get_n_tensors(ctx);
    for (int64_t i = 0; i < n; ++i) {
        const int64_t* ne = gguf_get_tensor_ne(ctx, i);
        int64_t product = 1;
        for (int d = 0; d < 4; ++d) {
            const int64_t dim = ne[d] == 0 ? 1 : ne[d];  // the parser refuses negative ones
            if (dim > kLargest / product) {
                return false;
            }
            product *= dim;
        }
    }
    return true;
}

// Keys are stored with their length, so one may hold a NUL byte; the parser
// compares whole keys, but every key call (find, set, copy) sees the text up to
// the first NUL. A key that is empty or repeated in that view would make the
// library abort when the keys are copied into another context ("\0x" gives an
// empty key; "general.alignment\0x" of a string type, beside the real one, is
// copied as the alignment).
bool keys_distinct(const gguf_context* ctx) {
    std::set<std::string_view> seen;
    const int64_t n = gguf_get_n_kv(ctx);
    for (int64_t id = 0; id < n; ++id) {
        const std::string_view key = gguf_get_key(ctx, id);
        if (key.empty() || !seen.insert(key).second) {
            return false;
        }
    }
    return true;
}

}  // namespace

GgufHandle read_gguf_header(const char* path) {
    silence_ggml_log();
    // Opening a FIFO without a writer would block for good; no special file can
    // hold a GGUF that the library could read anyway.
    struct stat st = {};
    if (stat(path, &st) == 0 && !S_ISREG(st.st_mode)) {
        return GgufHandle();
    }
    gguf_init_params params = {true, nullptr};
    GgufHandle handle(gguf_init_from_file(path, params));
    if (handle && (!keys_distinct(handle.get()) || !shapes_in_range(handle.get()))) {
        handle.reset();
    }
    return handle;
}

void silence_ggml_log() {
    ggml_log_set(discard_log, nullptr);
}

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
