#include "recipe/recipe.h"

#include <cctype>
#include <map>
#include <stdexcept>

#include <ggml.h>

namespace tevrin {
namespace {

// The numbers a recipe's type words stand for are ggml's; the defaults of OutType
// (q8_0) and the keep marker are spelled as numbers in the header.
constexpr int32_t kKeepType = 43;
static_assert(kKeepType == GGML_TYPE_COUNT, "keep is the first number that names no type");
static_assert(OutType{}.type == GGML_TYPE_Q8_0 && !OutType{}.keep && OutType{}.file_type == 7);

// Built on first use and read-only afterwards. "keep" carries 43, a number that
// is no ggml type, so a slip that hands it to ggml is easy to spot.
const std::map<std::string, OutType>& out_type_table() {
    static const std::map<std::string, OutType> table = {
        {"f32", {GGML_TYPE_F32, false, 0}},    {"f16", {GGML_TYPE_F16, false, 1}},
        {"bf16", {GGML_TYPE_BF16, false, 32}}, {"q8_0", {GGML_TYPE_Q8_0, false, 7}},
        {"q6_k", {GGML_TYPE_Q6_K, false, 18}}, {"q5_k", {GGML_TYPE_Q5_K, false, 17}},
        {"q5_0", {GGML_TYPE_Q5_0, false, 8}},  {"q4_k", {GGML_TYPE_Q4_K, false, 15}},
        {"q4_0", {GGML_TYPE_Q4_0, false, 2}},  {"keep", {kKeepType, true, -1}},
    };
    return table;
}

}  // namespace

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
