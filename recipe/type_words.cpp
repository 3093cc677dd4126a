#include "recipe/type_words.h"

#include <cctype>
#include <stdexcept>
#include <string>

#include <ggml.h>

namespace tevrin {

namespace {

// The numbers a recipe's type words stand for are ggml's; the defaults of OutType
// (q8_0) and the keep marker are spelled as numbers in the header.
constexpr int32_t kKeepType = 43;
static_assert(kKeepType == GGML_TYPE_COUNT, "keep is the first number that names no type");
static_assert(OutType{}.type == GGML_TYPE_Q8_0 && !OutType{}.keep && OutType{}.file_type == 7);

// file_type values are the loader's file-type numbers; a plain k-type carries the
// number of its medium mix, as q4_k and q5_k always have.
OutType plain(ggml_type type, int32_t file_type, bool needs_matrix = false) {
    return OutType{int32_t(type), false, file_type, QuantMix::none, needs_matrix};
}

OutType mix(QuantMix m, ggml_type main_type, int32_t file_type) {
    // Tensors of the smallest mix go to Q2_K, which that mix only makes with a matrix.
    return OutType{int32_t(main_type), false, file_type, m, m == QuantMix::q2_k_s};
}

std::vector<TypeWord> make_table() {
    return {
        {"f32", plain(GGML_TYPE_F32, 0)},
        {"f16", plain(GGML_TYPE_F16, 1)},
        {"bf16", plain(GGML_TYPE_BF16, 32)},
        {"q8_0", plain(GGML_TYPE_Q8_0, 7)},
        {"q6_k", plain(GGML_TYPE_Q6_K, 18)},
        {"q5_k", plain(GGML_TYPE_Q5_K, 17)},
        {"q5_1", plain(GGML_TYPE_Q5_1, 9)},
        {"q5_0", plain(GGML_TYPE_Q5_0, 8)},
        {"q4_k", plain(GGML_TYPE_Q4_K, 15)},
        {"q4_1", plain(GGML_TYPE_Q4_1, 3)},
        {"q4_0", plain(GGML_TYPE_Q4_0, 2)},
        {"iq4_nl", plain(GGML_TYPE_IQ4_NL, 25)},
        {"iq4_xs", plain(GGML_TYPE_IQ4_XS, 30)},
        {"q3_k", plain(GGML_TYPE_Q3_K, 12)},
        {"q2_k", plain(GGML_TYPE_Q2_K, 10)},
        {"tq2_0", plain(GGML_TYPE_TQ2_0, 37)},
        {"tq1_0", plain(GGML_TYPE_TQ1_0, 36)},
        {"iq3_s", plain(GGML_TYPE_IQ3_S, 26, true)},
        {"iq3_xxs", plain(GGML_TYPE_IQ3_XXS, 23, true)},
        {"iq2_s", plain(GGML_TYPE_IQ2_S, 29, true)},
        {"iq2_xs", plain(GGML_TYPE_IQ2_XS, 20, true)},
        {"iq2_xxs", plain(GGML_TYPE_IQ2_XXS, 19, true)},
        {"iq1_m", plain(GGML_TYPE_IQ1_M, 31, true)},
        {"iq1_s", plain(GGML_TYPE_IQ1_S, 24, true)},
        // "keep" carries a number that is no ggml type, so a slip that hands it to
        // ggml is easy to spot.
        {"keep", OutType{kKeepType, true, -1, QuantMix::none, false}},
        {"q5_k_m", mix(QuantMix::q5_k_m, GGML_TYPE_Q5_K, 17)},
        {"q5_k_s", mix(QuantMix::q5_k_s, GGML_TYPE_Q5_K, 16)},
        {"q4_k_m", mix(QuantMix::q4_k_m, GGML_TYPE_Q4_K, 15)},
        {"q4_k_s", mix(QuantMix::q4_k_s, GGML_TYPE_Q4_K, 14)},
        {"q3_k_l", mix(QuantMix::q3_k_l, GGML_TYPE_Q3_K, 13)},
        {"q3_k_m", mix(QuantMix::q3_k_m, GGML_TYPE_Q3_K, 12)},
        {"q3_k_s", mix(QuantMix::q3_k_s, GGML_TYPE_Q3_K, 11)},
        {"q2_k_s", mix(QuantMix::q2_k_s, GGML_TYPE_Q2_K, 21)},
    };
}

}  // namespace

const std::vector<TypeWord>& type_words() {
    static const std::vector<TypeWord> table = make_table();
    return table;
}

const char* mix_word(QuantMix m) {
    for (const TypeWord& entry : type_words()) {
        if (entry.out.mix == m && m != QuantMix::none) {
            return entry.word;
        }
    }
    return "none";
}

OutType parse_out_type(const std::string& word) {
    std::string lower = word;
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    for (const TypeWord& entry : type_words()) {
        if (lower == entry.word) {
            return entry.out;
        }
    }
    throw std::invalid_argument("unknown out type '" + word + "'");
}

}  // namespace tevrin
