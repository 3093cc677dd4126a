#include "model/kv_text.h"

#include <cstring>
#include <locale>
#include <sstream>

namespace tevrin {

namespace {

constexpr size_t kLongestString = 600;
constexpr size_t kLongestStringList = 8;
constexpr size_t kLongestOtherList = 16;

// General notation with 6 significant digits, whatever the global locale says.
std::string float_text(double value) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << value;
    return out.str();
}

std::string cut_string(const char* text) {
    std::string s(text);
    if (s.size() > kLongestString) {
        s.resize(kLongestString);
        s += "...";
    }
    return s;
}

template <typename T>
T element_at(const void* data, size_t i) {
    T value;
    std::memcpy(&value, static_cast<const uint8_t*>(data) + i * sizeof(T), sizeof(T));
    return value;
}

// Only the element types whose values are shown are read; the others stand as "?".
std::string element_text(const gguf_context* gguf, int64_t id, gguf_type type, size_t i) {
    switch (type) {
        case GGUF_TYPE_STRING:
            return gguf_get_arr_str(gguf, id, i);
        case GGUF_TYPE_UINT8:
            return std::to_string(element_at<uint8_t>(gguf_get_arr_data(gguf, id), i));
        case GGUF_TYPE_INT8:
            return std::to_string(element_at<int8_t>(gguf_get_arr_data(gguf, id), i));
        case GGUF_TYPE_UINT32:
            return std::to_string(element_at<uint32_t>(gguf_get_arr_data(gguf, id), i));
        case GGUF_TYPE_INT32:
            return std::to_string(element_at<int32_t>(gguf_get_arr_data(gguf, id), i));
        case GGUF_TYPE_FLOAT32:
            return float_text(element_at<float>(gguf_get_arr_data(gguf, id), i));
        case GGUF_TYPE_BOOL:
            return element_at<uint8_t>(gguf_get_arr_data(gguf, id), i) != 0 ? "true" : "false";
        default:
            return "?";
    }
}

// An array of arrays would always be summarised; ggml refuses nested arrays when it
// parses a file, so that branch only guards against other producers of a context.
std::string array_text(const gguf_context* gguf, int64_t id) {
    const gguf_type type = gguf_get_arr_type(gguf, id);
    const size_t n = gguf_get_arr_n(gguf, id);
    const size_t longest = type == GGUF_TYPE_STRING ? kLongestStringList : kLongestOtherList;
    if (type == GGUF_TYPE_ARRAY || n > longest) {
        const char* name = gguf_type_name(type);
        return std::string("[") + (name != nullptr ? name : "?") + " x " + std::to_string(n) + "]";
    }
    std::string text = "[";
    for (size_t i = 0; i < n; ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += element_text(gguf, id, type, i);
    }
    return text + "]";
}

}  // namespace

std::string kv_value_text(const gguf_context* gguf, int64_t id) {
    switch (gguf_get_kv_type(gguf, id)) {
        case GGUF_TYPE_UINT8:
            return std::to_string(gguf_get_val_u8(gguf, id));
        case GGUF_TYPE_INT8:
            return std::to_string(gguf_get_val_i8(gguf, id));
        case GGUF_TYPE_UINT16:
            return std::to_string(gguf_get_val_u16(gguf, id));
        case GGUF_TYPE_INT16:
            return std::to_string(gguf_get_val_i16(gguf, id));
        case GGUF_TYPE_UINT32:
            return std::to_string(gguf_get_val_u32(gguf, id));
        case GGUF_TYPE_INT32:
            return std::to_string(gguf_get_val_i32(gguf, id));
        case GGUF_TYPE_UINT64:
            return std::to_string(gguf_get_val_u64(gguf, id));
        case GGUF_TYPE_INT64:
            return std::to_string(gguf_get_val_i64(gguf, id));
        case GGUF_TYPE_FLOAT32:
            return float_text(gguf_get_val_f32(gguf, id));
        case GGUF_TYPE_FLOAT64:
            return float_text(gguf_get_val_f64(gguf, id));
        case GGUF_TYPE_BOOL:
            return gguf_get_val_bool(gguf, id) ? "true" : "false";
        case GGUF_TYPE_STRING:
            return cut_string(gguf_get_val_str(gguf, id));
        case GGUF_TYPE_ARRAY:
            return array_text(gguf, id);
        default:
            return "?";
    }
}

std::string kv_text(const gguf_context* gguf, const std::string& key) {
    const int64_t id = gguf_find_key(gguf, key.c_str());
    return id < 0 ? std::string() : kv_value_text(gguf, id);
}

}  // namespace tevrin
