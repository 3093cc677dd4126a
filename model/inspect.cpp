#include "model/inspect.h"

#include <cstdio>
#include <limits>
#include <locale>
#include <map>
#include <sstream>

#include "model/gguf_handle.h"
#include "model/kv_text.h"

namespace tevrin {

namespace {

constexpr int64_t kLongestTensorList = 4000;

struct TypeStat {
    int64_t count = 0;
    int64_t params = 0;
};

std::string number_text(double value) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << value;
    return out.str();
}

void add_string_member(std::string& doc, const char* key, const std::string& value) {
    doc += ",\"";
    doc += key;
    doc += "\":\"";
    doc += json_escape(value);
    doc += '"';
}

// Every key in file order but the chat template, which can be many kilobytes and is
// reported only as has_template.
void add_kv_array(std::string& doc, const gguf_context* gguf) {
    doc += ",\"kv\":[";
    bool first = true;
    const int64_t n = gguf_get_n_kv(gguf);
    for (int64_t id = 0; id < n; ++id) {
        const std::string key = gguf_get_key(gguf, id);
        if (key == "tokenizer.chat_template") {
            continue;
        }
        doc += first ? "[\"" : ",[\"";
        first = false;
        doc += json_escape(key);
        doc += "\",\"";
        doc += json_escape(kv_value_text(gguf, id));
        doc += "\"]";
    }
    doc += ']';
}

// Totals over a header's claims, which no data backs: a few hundred bytes of
// header can promise more elements than 64 bits hold, so sums stop at the top.
template <typename T>
T saturating_add(T a, T b) {
    T sum;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<T>::max() : sum;
}

// Dimensions joined by "x", up to the first 1 after the row length.
std::string shape_text(const int64_t* ne) {
    std::string text = std::to_string(ne[0]);
    for (int d = 1; d < 4 && ne[d] != 1; ++d) {
        text += 'x';
        text += std::to_string(ne[d]);
    }
    return text;
}

}  // namespace

std::string json_escape(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 8);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (byte) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (byte < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", unsigned(byte));
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    return out;
}

std::string inspect_json(const std::string& path, bool with_tensors) {
    const GgufHandle handle = read_gguf_header(path.c_str());
    if (!handle) {
        return "{\"ok\":false,\"error\":\"not a valid GGUF file\"}";
    }
    const gguf_context* gguf = handle.get();

    std::string doc = "{\"ok\":true,\"version\":" + std::to_string(gguf_get_version(gguf)) +
                      ",\"alignment\":" + std::to_string(gguf_get_alignment(gguf));

    // An architecture stored as anything but a string is treated as absent, the same
    // way a source model reads it, so its value is never fetched with the wrong getter.
    const std::string arch = gguf_string_or(gguf, "general.architecture", "unknown");
    add_string_member(doc, "arch", arch);
    add_string_member(doc, "name", kv_text(gguf, "general.name"));
    add_string_member(doc, "n_layer", kv_text(gguf, arch + ".block_count"));
    add_string_member(doc, "n_ctx_train", kv_text(gguf, arch + ".context_length"));
    add_string_member(doc, "n_embd", kv_text(gguf, arch + ".embedding_length"));
    add_string_member(doc, "n_head", kv_text(gguf, arch + ".attention.head_count"));
    add_string_member(doc, "n_head_kv", kv_text(gguf, arch + ".attention.head_count_kv"));
    add_string_member(doc, "size_label", kv_text(gguf, "general.size_label"));
    add_string_member(doc, "tokenizer", kv_text(gguf, "tokenizer.ggml.model"));
    doc += ",\"has_template\":";
    doc += gguf_find_key(gguf, "tokenizer.chat_template") >= 0 ? "true" : "false";
    add_string_member(doc, "tevrin_recipe", kv_text(gguf, "tevrin.recipe"));
    add_kv_array(doc, gguf);

    std::map<std::string, TypeStat> types;
    int64_t n_params = 0;
    uint64_t tensor_bytes = 0;
    const int64_t n_tensors = gguf_get_n_tensors(gguf);
    std::string tensors;
    for (int64_t i = 0; i < n_tensors; ++i) {
        const int64_t* ne = gguf_get_tensor_ne(gguf, i);
        const int64_t elements = ne[0] * ne[1] * ne[2] * ne[3];  // at most 2^60 each
        n_params = saturating_add(n_params, elements);
        tensor_bytes = saturating_add<uint64_t>(tensor_bytes, gguf_get_tensor_size(gguf, i));
        const char* type_name = ggml_type_name(gguf_get_tensor_type(gguf, i));
        TypeStat& stat = types[type_name];
        stat.count += 1;
        stat.params = saturating_add(stat.params, elements);
        if (with_tensors && i < kLongestTensorList) {
            tensors += i == 0 ? "[\"" : ",[\"";
            tensors += json_escape(gguf_get_tensor_name(gguf, i));
            tensors += "\",\"";
            tensors += type_name;
            tensors += "\",\"";
            tensors += shape_text(ne);
            tensors += "\"]";
        }
    }

    const double bpw = n_params == 0 ? 0.0 : double(tensor_bytes) * 8.0 / double(n_params);
    doc += ",\"n_tensors\":" + std::to_string(n_tensors);
    doc += ",\"n_params\":" + std::to_string(n_params);
    doc += ",\"tensor_bytes\":" + std::to_string(tensor_bytes);
    doc += ",\"bpw\":" + number_text(bpw);
    doc += ",\"types\":[";
    bool first = true;
    for (const auto& [name, stat] : types) {
        doc += first ? "[\"" : ",[\"";
        first = false;
        doc += name;
        doc += "\"," + std::to_string(stat.count) + "," + std::to_string(stat.params) + "]";
    }
    doc += ']';
    if (with_tensors) {
        doc += ",\"tensors\":[" + tensors + "]";
    }
    doc += '}';
    return doc;
}

}  // namespace tevrin
