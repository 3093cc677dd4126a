#include "recipe/recipe.h"

#include <array>
#include <cctype>
#include <map>
#include <stdexcept>

namespace tevrin {
namespace {

// Built on first use and read-only afterwards. "keep" carries 43, a number that
// is no ggml type, so a slip that hands it to ggml is easy to spot.
const std::map<std::string, OutType>& out_type_table() {
    static const std::map<std::string, OutType> table = {
        {"f32", {0, false, 0}},   {"f16", {1, false, 1}},    {"bf16", {30, false, 32}},
        {"q8_0", {8, false, 7}},  {"q6_k", {14, false, 18}}, {"q5_k", {13, false, 17}},
        {"q5_0", {6, false, 8}},  {"q4_k", {12, false, 15}}, {"q4_0", {2, false, 2}},
        {"keep", {43, true, -1}},
    };
    return table;
}

constexpr std::array<const char*, 11> kMethodWords = {
    "linear", "slerp",       "ties",  "dare",   "pick",     "chaos",
    "task",   "breadcrumbs", "della", "median", "nearswap",
};

}  // namespace

const char* method_word(BlendMethod method) {
    const auto index = static_cast<size_t>(method);
    return index < kMethodWords.size() ? kMethodWords[index] : "unknown";
}

OutType parse_out_type(const std::string& word) {
    std::string lower = word;
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    const auto& table = out_type_table();
    const auto found = table.find(lower);
    if (found == table.end()) {
        throw std::invalid_argument("unknown out type '" + word + "'");
    }
    return found->second;
}

}  // namespace tevrin
