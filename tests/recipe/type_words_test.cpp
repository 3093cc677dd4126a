// Output type words: every word's tensor type, file type and mix, the words that
// need an importance matrix, case, and the "type" directive.
#include <gtest/gtest.h>

#include <ggml.h>

#include "recipe/parse_recipe.h"
#include "recipe/type_words.h"

namespace tevrin {
namespace {

std::string describe(const OutType& o) {
    return std::string(o.keep ? "keep" : ggml_type_name(ggml_type(o.type))) + " " +
           std::to_string(o.file_type) + " " + mix_word(o.mix) + (o.needs_matrix ? " matrix" : "");
}

TEST(TypeWords, EveryWord) {
    // clang-format off
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"f32", "f32 0 none"}, {"F16", "f16 1 none"}, {"bf16", "bf16 32 none"},
        {"q8_0", "q8_0 7 none"}, {"q6_k", "q6_K 18 none"}, {"q5_k", "q5_K 17 none"},
        {"q5_1", "q5_1 9 none"}, {"q5_0", "q5_0 8 none"}, {"Q4_K", "q4_K 15 none"},
        {"q4_1", "q4_1 3 none"}, {"q4_0", "q4_0 2 none"}, {"iq4_nl", "iq4_nl 25 none"},
        {"iq4_xs", "iq4_xs 30 none"}, {"q3_k", "q3_K 12 none"}, {"q2_k", "q2_K 10 none"},
        {"tq2_0", "tq2_0 37 none"}, {"tq1_0", "tq1_0 36 none"},
        {"iq3_s", "iq3_s 26 none matrix"}, {"iq3_xxs", "iq3_xxs 23 none matrix"},
        {"iq2_s", "iq2_s 29 none matrix"}, {"iq2_xs", "iq2_xs 20 none matrix"},
        {"iq2_xxs", "iq2_xxs 19 none matrix"}, {"iq1_m", "iq1_m 31 none matrix"},
        {"iq1_s", "iq1_s 24 none matrix"}, {"keep", "keep -1 none"},
        {"Q5_K_M", "q5_K 17 q5_k_m"}, {"q5_k_s", "q5_K 16 q5_k_s"}, {"Q4_K_M", "q4_K 15 q4_k_m"},
        {"q4_k_s", "q4_K 14 q4_k_s"}, {"q3_k_l", "q3_K 13 q3_k_l"}, {"q3_k_m", "q3_K 12 q3_k_m"},
        {"q3_k_s", "q3_K 11 q3_k_s"}, {"q2_k_s", "q2_K 21 q2_k_s matrix"},
    };
    // clang-format on
    EXPECT_EQ(cases.size(), type_words().size());
    for (const auto& [word, expected] : cases) {
        EXPECT_EQ(describe(parse_out_type(word)), expected) << word;
    }
    for (const std::string bad : {"q4_k_l", "q8_1", "i32", "q4_k_m "}) {
        EXPECT_THROW(parse_out_type(bad), std::invalid_argument) << bad;
    }
}

TEST(TypeWords, TypeDirective) {
    const Recipe r = parse_recipe(
        "out q4_k_m\ntype blk.*.attn_v.weight Q8_0 # more bits\ntype output.weight keep\n", 1);
    ASSERT_EQ(r.type_rules.size(), 2u);
    EXPECT_EQ(r.type_rules[0].pattern, "blk.*.attn_v.weight");
    EXPECT_EQ(describe(r.type_rules[0].out), "q8_0 7 none");
    EXPECT_EQ(r.type_rules[0].text, "type blk.*.attn_v.weight Q8_0");
    EXPECT_TRUE(r.type_rules[1].out.keep);
    EXPECT_EQ(r.out.mix, QuantMix::q4_k_m);
    // clang-format off
    const std::vector<std::pair<std::string, std::string>> failures = {
        {"type x q4_k_m", "recipe line 1: 'q4_k_m' is a mix, not a tensor type"},
        {"type x q9", "recipe line 1: unknown out type 'q9'"},
        {"\ntype x", "recipe line 2: vector::_M_range_check: __n (which is 2) >= this->size() (which is 2)"},
    };
    // clang-format on
    for (const auto& [text, message] : failures) {
        try {
            parse_recipe(text, 1);
            ADD_FAILURE() << text;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

}  // namespace
}  // namespace tevrin
