#include "fuse/output_metadata.h"

#include "fuse/layer_arrays.h"
#include "model/shard_names.h"

namespace tevrin {

namespace {

const char* const chat_template_key = "tokenizer.chat_template";

// The tensor data of the output must be laid out with the alignment that its own
// general.alignment key states, or loaders reject the file. ggml's empty context
// always uses 32, so a base that states an alignment gets a context made with it.
// A key that the base's parser accepted is always a u32 power of two.
GgufHandle empty_output_like(const gguf_context* base) {
    const int64_t id = gguf_find_key(base, "general.alignment");
    if (id >= 0 && gguf_get_kv_type(base, id) == GGUF_TYPE_UINT32) {
        return empty_gguf_with_alignment(gguf_get_val_u32(base, id));
    }
    return GgufHandle(gguf_init_empty());
}

// The first donor of the base's family with a string template lends it to an
// output that has none. A donor whose key holds another type does not qualify,
// and the search goes on with the next donor.
void borrow_chat_template(gguf_context* out, const SourceList& sources,
                          std::vector<std::string>& notes) {
    if (gguf_find_key(out, chat_template_key) >= 0) {
        return;
    }
    for (size_t s = 1; s < sources.size(); ++s) {
        if (sources[s]->arch != sources[0]->arch) {
            continue;
        }
        const char* text = gguf_string_or(sources[s]->gguf, chat_template_key, nullptr);
        if (text != nullptr) {
            gguf_set_val_str(out, chat_template_key, text);
            notes.push_back("chat template borrowed from source " + std::to_string(s));
            return;
        }
    }
}

std::string file_name(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void set_source_names(gguf_context* out, const SourceList& sources) {
    std::vector<std::string> names;
    for (const auto& source : sources) {
        names.push_back(file_name(source->path));
    }
    std::vector<const char*> pointers;
    for (const auto& name : names) {
        pointers.push_back(name.c_str());
    }
    gguf_set_arr_str(out, "tevrin.sources", pointers.data(), pointers.size());
}

}  // namespace

GgufHandle make_output_metadata(const SourceList& sources, const Recipe& recipe,
                                const std::string& recipe_text, std::vector<std::string>& notes) {
    const SourceModel& base = *sources[0];
    GgufHandle out = empty_output_like(base.gguf);
    gguf_set_kv(out.get(), base.gguf);
    // The base's own shard layout says nothing about the output's; a split output
    // gets its keys when it is cut into shards.
    for (const char* key : {kSplitNoKey, kSplitCountKey, kSplitTensorsKey}) {
        gguf_remove_key(out.get(), key);
    }
    borrow_chat_template(out.get(), sources, notes);
    gguf_set_val_str(out.get(), "general.name", recipe.name.c_str());
    if (recipe.out.file_type >= 0) {
        gguf_set_val_u32(out.get(), "general.file_type", uint32_t(recipe.out.file_type));
    }
    gguf_set_val_u32(out.get(), "general.quantization_version", 2);
    if (!recipe.stack.empty()) {
        gguf_set_val_u32(out.get(), (base.arch + ".block_count").c_str(),
                         uint32_t(recipe.stack.size()));
        rebuild_layer_arrays(out.get(), sources, recipe, notes);
    }
    gguf_set_val_str(out.get(), "tevrin.recipe", recipe_text.c_str());
    gguf_set_val_str(out.get(), "tevrin.compiler", "tevrin-fusion 1.0");
    set_source_names(out.get(), sources);
    return out;
}

}  // namespace tevrin
