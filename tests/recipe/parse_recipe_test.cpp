// Recipe text: method expressions, number limits, directives, comments and line
// ends, messages with their line numbers, the order of the final checks, the
// stack length cap, and the output type words with the "type" directive.
#include <gtest/gtest.h>

#include <ggml.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "recipe/method_table.h"
#include "recipe/parse_recipe.h"
#include "recipe/type_words.h"

namespace tevrin {
namespace {

// What `read` returns, as printed, or the message it fails with.
template <typename F>
std::string outcome(F read) {
    try {
        std::ostringstream out;
        out << read();
        return out.str();
    } catch (const std::exception& e) {
        return e.what();
    }
}

// "method t t_end scheduled pick | weights | weights_end"
std::string describe(const MethodSpec& s) {
    std::ostringstream out;
    out << method_word(s.method) << ' ' << s.t << ' ' << s.t_end << ' ' << s.scheduled << ' '
        << s.pick;
    for (const auto* list : {&s.weights, &s.weights_end}) {
        out << " |";
        for (float w : *list) {
            out << ' ' << w;
        }
    }
    for (float t : s.t_inner) {
        out << " ~" << t;
    }
    for (const auto& list : s.weights_inner) {
        out << " ~";
        for (float w : list) {
            out << w << ',';
        }
    }
    return out.str();
}

TEST(RecipeText, MethodPlacesAndSchedules) {
    // clang-format off
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"linear 0.7,0.3 0.9", "linear 0.5 0 0 0 | 0.7 0.3 |"},  {"ties 1,1", "ties 1 0 0 0 | |"},
        {"slerp 0.3 1,1", "slerp 0.3 0 0 0 | |"},  {"dare 0.3 ,1,,2,", "dare 0.3 0 0 0 | 1 2 |"},
        {"chaos 0.1>0.5>0.9", "chaos 0.1 0.9 1 0 | | ~0.5"},  {"pick 1 9", "pick 0.5 0 0 1 | |"},
        {"ties 0.5 >1,1", "ties 0.5 0 1 0 | | 1 1"},  {"della 0.5 1,1>", "della 0.5 0 1 0 | 1 1 |"},
        {"task 1.0 1,0>0,1", "task 1 0 1 0 | 1 0 | 0 1"},  {"model_stock 0.2 1,1", "model_stock 0.5 0 0 0 | |"},
        {"sce", "sce 1 0 0 0 | |"},  {"sce 0.3 1,1", "sce 0.3 0 0 0 | |"},  {"karcher", "karcher 10 0 0 0 | |"},
        {"karcher 20 1,2", "karcher 20 0 0 0 | 1 2 |"},  {"multislerp", "multislerp 0 0 0 0 | |"},
        {"multislerp 1 0,1,1", "multislerp 1 0 0 0 | 0 1 1 |"},  {"nuslerp 0,1>0,3", "nuslerp 0.5 0 1 0 | 0 1 | 0 3"},
        {"ties 0.2>0.4>0.6>0.8 1>,1>2,2", "ties 0.2 0.8 1 0 | 1 | 2 2 ~0.4 ~0.6 ~1,"},
        {"slerp 0.1>0.5>", "stof"},  {"slerp 0.1>>0.5", "stof"},
    };
    // clang-format on
    for (const auto& [expression, expected] : cases) {
        const std::string line = "default " + expression;
        if (expected == "stof") {
            EXPECT_THROW(parse_recipe(line, 2), std::invalid_argument) << expression;
            continue;
        }
        const MethodSpec spec = parse_recipe(line + " # note", 2).default_spec;
        EXPECT_EQ(describe(spec), expected) << expression;
        EXPECT_EQ(spec.text, line);
        EXPECT_EQ(spec.line, 1);
    }
}

TEST(RecipeText, NumberLimits) {
    // clang-format off
    const std::vector<std::tuple<char, std::string, std::string>> cases = {  // f, i, u: reader
        {'f', "0.5x", "0.5"}, {'f', "0x1.8p1", "3"}, {'f', "-NAN(x)", "-nan"}, {'f', ">1", "stof"},
        {'f', "3.4028235e38", "3.40282e+38"}, {'f', "3.5e38", "stof"}, {'f', "1e-40", "stof"},
        {'f', "0x1p-149", "1.4013e-45"}, {'f', "0x1p-150", "stof"}, {'i', "12abc", "12"},
        {'i', "2147483647", "2147483647"}, {'i', "2147483648", "stoi"}, {'u', "abc", "stoull"},
        {'i', "-2147483648", "-2147483648"}, {'i', "-2147483649", "stoi"},
        {'u', "-1", "18446744073709551615"}, {'u', "18446744073709551616", "stoull"},
        {'u', "18446744073709551615", "18446744073709551615"},
    };
    // clang-format on
    for (const auto& [reader, text, expected] : cases) {
        const std::string got = reader == 'f'   ? outcome([&] { return read_float(text); })
                                : reader == 'i' ? outcome([&] { return read_int(text); })
                                                : outcome([&] { return read_u64(text); });
        EXPECT_EQ(got, expected) << reader << " '" << text << "'";
    }
}

// CR LF line ends, comments, a vertical-tab/form-feed line, repeats and no final line feed.
TEST(RecipeText, DirectivesCommentsAndLineEnds) {
    const Recipe r = parse_recipe(
        "name x\r\nname  My  Blend  # first try\r\n\v\f\r\nout Q5_K\nseed 1\nseed 12abc\n"
        "default linear 0.7,0.3\r\nlayers 5 slerp\nlayers 3-1 pick 0 # never applies\n"
        "tensor token_embd* pick 1 # from the donor",
        2);
    EXPECT_EQ(r.name, "My  Blend");
    EXPECT_EQ(std::make_tuple(r.out.type, r.out.file_type, r.seed), std::make_tuple(13, 17, 12u));
    const LayerRule &one = r.layer_rules.at(0), &reversed = r.layer_rules.at(1);
    EXPECT_EQ(std::make_tuple(r.layer_rules.size(), one.first, one.last, reversed.first,
                              reversed.last, r.tensor_rules.at(0).pattern),
              std::make_tuple(2u, 5, 5, 3, 1, "token_embd*"));
    // Without a default line one source means pick 0; at the stack cap a falling slice adds none.
    EXPECT_EQ(parse_recipe("", 1).default_spec.method, BlendMethod::pick);
    EXPECT_EQ(parse_recipe("stack 1:0-65535 0:9-2", 2).stack.size(), 65536u);
}

TEST(RecipeText, FailureMessagesAndTheOrderOfFinalChecks) {
    const std::string range =
        "vector::_M_range_check: __n (which is 1) >= this->size() (which is 1)";
    const std::string pick = "pick index out of range in: ";
    const std::string two = "slerp / nearswap need at least 2 sources";
    const std::string too_long = "stack too long (at most 65536 layers)";
    struct Case {
        std::string text;
        int line;  // 0: a final check, without a line prefix
        std::string message;
        int32_t sources = 2;
    };
    const std::vector<Case> cases = {
        {"\n\n\n\ndefault blend 0.5", 5, "unknown method 'blend' in: default blend 0.5"},
        {"seed 1\r\nseed 2\r\nlayers\r\n", 3, range},
        {"\v\n\f\v\f\nseed 5\n\f\nbad directive", 5, "unknown directive 'bad'"},
        {"tensor *attn#q* pick 0 # c", 1, "missing method in: tensor *attn"},
        {"layers -1-3 pick 0", 1, "stoi"},  // the range is cut at its first '-'
        {"out q4_k_l", 1, "unknown out type 'q4_k_l'"},
        {"type x q4_k_m", 1, "'q4_k_m' is a mix, not a tensor type"},
        {"\ntype x", 2, "vector::_M_range_check: __n (which is 2) >= this->size() (which is 2)"},
        {"seed abc", 1, "stoull"},
        {"default slerp >0.8", 1, "stof"},
        {"stack 0:0 1", 1, "stack slice needs src:a-b"},
        // The length is checked before a slice is expanded, over all stack lines together.
        {"stack 0:0-2000000000", 1, too_long},
        {"stack 1:0-65535\n\nstack 0:7", 3, too_long},
        {"stack 0:-2147483648", 1, "stoi"},
        // Final checks run after the last line and carry no line number.
        {"stack 2:0-3", 0, "stack source index out of range"},
        {"seed 1\ndefault pick 7\n\n\n\n\n\n\nfoo", 9, "unknown directive 'foo'"},
        {"tensor t pick 5\nlayers 0 pick 6\ndefault pick 2", 0, pick + "default pick 2"},
        {"tensor t pick 5\nlayers 0 slerp", 0, two, 1},
        {"stack 3:0\ntensor t pick 5\nlayers 1 pick 4", 0, pick + "layers 1 pick 4"},
        {"stack 3:0\ntensor a pick 0\ntensor b pick 5", 0, pick + "tensor b pick 5"},
    };
    for (const Case& c : cases) {
        const std::string got = outcome([&] { return parse_recipe(c.text, c.sources).name; });
        const std::string prefix = c.line ? "recipe line " + std::to_string(c.line) + ": " : "";
        EXPECT_EQ(got, prefix + c.message) << c.text;
    }
}

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
}

}  // namespace
}  // namespace tevrin
