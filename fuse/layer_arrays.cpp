#include "fuse/layer_arrays.h"

#include <cstring>
#include <stdexcept>

#include "fuse/stack_plan.h"

namespace tevrin {
namespace {

// Bytes per element of a fixed-size GGUF array type; 0 for strings and arrays.
size_t element_size(gguf_type type) {
    switch (type) {
        case GGUF_TYPE_UINT8:
        case GGUF_TYPE_INT8:
        case GGUF_TYPE_BOOL:
            return 1;
        case GGUF_TYPE_UINT16:
        case GGUF_TYPE_INT16:
            return 2;
        case GGUF_TYPE_UINT32:
        case GGUF_TYPE_INT32:
        case GGUF_TYPE_FLOAT32:
            return 4;
        case GGUF_TYPE_UINT64:
        case GGUF_TYPE_INT64:
        case GGUF_TYPE_FLOAT64:
            return 8;
        default:
            return 0;
    }
}

bool is_layer_array(const SourceModel& model, int64_t id) {
    return id >= 0 && gguf_get_kv_type(model.gguf, id) == GGUF_TYPE_ARRAY &&
           gguf_get_arr_n(model.gguf, id) == size_t(int64_t(model.n_layer));
}

// Where an output layer's entry comes from: a model, its key id and an index.
struct Entry {
    const SourceModel* model;
    int64_t id;
    size_t index;
};

void set_array(gguf_context* out, const std::string& key, gguf_type type,
               const std::vector<Entry>& entries) {
    if (type == GGUF_TYPE_STRING) {
        std::vector<const char*> texts;
        for (const Entry& e : entries) {
            texts.push_back(gguf_get_arr_str(e.model->gguf, e.id, e.index));
        }
        gguf_set_arr_str(out, key.c_str(), texts.data(), texts.size());
        return;
    }
    const size_t size = element_size(type);
    std::vector<uint8_t> bytes(entries.size() * size);
    for (size_t i = 0; i < entries.size(); ++i) {
        const auto* data =
            static_cast<const uint8_t*>(gguf_get_arr_data(entries[i].model->gguf, entries[i].id));
        std::memcpy(bytes.data() + i * size, data + entries[i].index * size, size);
    }
    gguf_set_arr_data(out, key.c_str(), type, bytes.data(), entries.size());
}

void rebuild_one(gguf_context* out, const std::string& key, const SourceList& sources,
                 const Recipe& recipe, std::vector<std::string>& notes) {
    const SourceModel& base = *sources[0];
    const int64_t base_id = gguf_find_key(base.gguf, key.c_str());
    const gguf_type type = gguf_get_arr_type(base.gguf, base_id);
    if (type != GGUF_TYPE_STRING && element_size(type) == 0) {
        throw std::runtime_error("stack not supported: per-layer metadata " + key);
    }
    std::vector<Entry> entries;
    std::vector<bool> noted(sources.size(), false);
    for (const StackSlice& slice : recipe.stack) {
        const SourceModel& source = *sources[size_t(slice.source)];
        const int64_t id = gguf_find_key(source.gguf, key.c_str());
        if (is_layer_array(source, id) && gguf_get_arr_type(source.gguf, id) == type) {
            entries.push_back({&source, id, size_t(slice.layer)});
            continue;
        }
        const int32_t layer = template_layer(slice, sources);
        if (layer < 0 || layer >= base.n_layer) {
            throw std::runtime_error("stack not supported: per-layer metadata " + key);
        }
        entries.push_back({&base, base_id, size_t(layer)});
        if (!noted[size_t(slice.source)]) {
            noted[size_t(slice.source)] = true;
            notes.push_back("per-layer " + key + " taken from the base for source " +
                            std::to_string(slice.source));
        }
    }
    set_array(out, key, type, entries);
}

}  // namespace

std::vector<std::string> per_layer_keys(const SourceModel& base) {
    const std::string prefix = base.arch + ".";
    std::vector<std::string> keys;
    const int64_t n_kv = gguf_get_n_kv(base.gguf);
    for (int64_t id = 0; id < n_kv; ++id) {
        const std::string key = gguf_get_key(base.gguf, id);
        if (is_layer_array(base, id) && key.compare(0, prefix.size(), prefix) == 0) {
            keys.push_back(key);
        }
    }
    return keys;
}

void rebuild_layer_arrays(gguf_context* out, const SourceList& sources, const Recipe& recipe,
                          std::vector<std::string>& notes) {
    if (recipe.stack.empty()) {
        return;
    }
    for (const std::string& key : per_layer_keys(*sources[0])) {
        rebuild_one(out, key, sources, recipe, notes);
    }
}

}  // namespace tevrin
