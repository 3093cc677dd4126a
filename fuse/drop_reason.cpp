#include "fuse/drop_reason.h"

namespace tevrin {

const char* drop_reason_word(DropReason reason) {
    switch (reason) {
        case DropReason::none:
            return "none";
        case DropReason::missing:
            return "missing";
        case DropReason::other_shape:
            return "other shape";
        case DropReason::other_vocabulary:
            return "other vocabulary";
    }
    return "none";
}

int64_t vocabulary_size(const SourceModel& model) {
    const int64_t key = gguf_find_key(model.gguf, "tokenizer.ggml.tokens");
    if (key < 0 || gguf_get_kv_type(model.gguf, key) != GGUF_TYPE_ARRAY) {
        return -1;
    }
    return int64_t(gguf_get_arr_n(model.gguf, key));
}

DropReason drop_reason(const SourceModel& base, const std::array<int64_t, 4>& shape,
                       const SourceModel& source, int64_t found) {
    if (found < 0) {
        return DropReason::missing;
    }
    const std::array<int64_t, 4> other = tensor_shape(source, found);
    const int64_t base_vocab = vocabulary_size(base), source_vocab = vocabulary_size(source);
    if (base_vocab < 0 || source_vocab < 0 || base_vocab == source_vocab) {
        return DropReason::other_shape;
    }
    int32_t differing = 0;
    bool vocabulary_dimension = false;
    for (size_t d = 0; d < shape.size(); ++d) {
        if (shape[d] != other[d]) {
            ++differing;
            vocabulary_dimension = shape[d] == base_vocab && other[d] == source_vocab;
        }
    }
    return differing == 1 && vocabulary_dimension ? DropReason::other_vocabulary
                                                  : DropReason::other_shape;
}

}  // namespace tevrin
