// Recipe text: method expressions, number limits, directives, comments and line
// ends, messages with their line numbers, the order of the final checks, and the
// recipes under examples/.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "recipe/parse_recipe.h"

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

struct MethodCase {
    std::string expression;
    BlendMethod method;
    float t, t_end;
    bool scheduled;
    std::vector<float> weights, weights_end;
    int32_t pick;
};

TEST(RecipeText, MethodPlacesAndSchedules) {
    using M = BlendMethod;
    const std::vector<MethodCase> cases = {
        {"linear 0.7,0.3 0.9", M::linear, 0.5f, 0, false, {0.7f, 0.3f}, {}, 0},
        {"median 1 2 3", M::median, 0.5f, 0, false, {}, {}, 0},
        {"slerp 0.3 1,1", M::slerp, 0.3f, 0, false, {}, {}, 0},
        {"ties 1,1", M::ties, 1.0f, 0, false, {}, {}, 0},
        {"dare 0.3 ,1,,2,", M::dare, 0.3f, 0, false, {1, 2}, {}, 0},
        {"slerp 0.2>0.8", M::slerp, 0.2f, 0.8f, true, {}, {}, 0},
        {"chaos 0.1>0.5>0.9", M::chaos, 0.1f, 0.5f, true, {}, {}, 0},
        {"ties 0.5 >1,1", M::ties, 0.5f, 0, true, {}, {1, 1}, 0},
        {"della 0.5 1,1>", M::della, 0.5f, 0, true, {1, 1}, {}, 0},
        {"task 1.0 1,0>0,1", M::task, 1.0f, 0, true, {1, 0}, {0, 1}, 0},
        {"linear 1,0>0,1 7", M::linear, 0.5f, 0, true, {1, 0}, {0, 1}, 0},
        {"pick 1 9", M::pick, 0.5f, 0, false, {}, {}, 1},
    };
    for (const MethodCase& c : cases) {
        SCOPED_TRACE(c.expression);
        const MethodSpec spec = parse_recipe("default " + c.expression + " # note", 2).default_spec;
        EXPECT_EQ(std::make_tuple(spec.method, spec.t, spec.t_end, spec.scheduled, spec.pick),
                  std::make_tuple(c.method, c.t, c.t_end, c.scheduled, c.pick));
        EXPECT_EQ(spec.weights, c.weights);
        EXPECT_EQ(spec.weights_end, c.weights_end);
        EXPECT_EQ(spec.text, "default " + c.expression);
    }
}

TEST(RecipeText, NumberLimits) {
    struct Case {
        char reader;  // f: read_float, i: read_int, u: read_u64
        std::string text, expected;
    };
    // clang-format off
    const std::vector<Case> cases = {
        {'f', "0.5x", "0.5"},      {'f', "0x1.8p1", "3"},      {'f', "-inf", "-inf"},
        {'f', "-NAN(x)", "-nan"},  {'f', "", "stof"},          {'f', ">1", "stof"},
        {'f', "3.4028235e38", "3.40282e+38"},   {'f', "3.5e38", "stof"},
        {'f', "0x1p-149", "1.4013e-45"},        {'f', "1e-40", "stof"},  {'f', "0x1p-150", "stof"},
        {'i', "12abc", "12"},      {'i', "-", "stoi"},         {'i', "99999999999999999999999", "stoi"},
        {'i', "2147483647", "2147483647"},      {'i', "2147483648", "stoi"},
        {'i', "-2147483648", "-2147483648"},    {'i', "-2147483649", "stoi"},
        {'u', "abc", "stoull"},    {'u', "-1", "18446744073709551615"},
        {'u', "18446744073709551615", "18446744073709551615"},
        {'u', "18446744073709551616", "stoull"}, {'u', "-18446744073709551615", "1"},
    };
    // clang-format on
    for (const Case& c : cases) {
        const std::string got = c.reader == 'f'   ? outcome([&] { return read_float(c.text); })
                                : c.reader == 'i' ? outcome([&] { return read_int(c.text); })
                                                  : outcome([&] { return read_u64(c.text); });
        EXPECT_EQ(got, c.expected) << c.reader << " '" << c.text << "'";
    }
}

// CR LF line ends, comments, a vertical-tab/form-feed line, repeats and no final line feed.
TEST(RecipeText, DirectivesCommentsAndLineEnds) {
    const Recipe r = parse_recipe(
        "name x\r\nname  My  Blend  # first try\r\n\v\f\r\nout Q5_K\nseed 1\nseed 12abc\n"
        "default linear 0.7,0.3\r\nlayers 5 slerp\nlayers 3-1 pick 0 # never applies\n"
        "tensor token_embd* pick 1 # from the donor\r\nstack 0:0-1 1:0-1 0:2\nstack 1:3 0:3-1",
        2);
    EXPECT_EQ(r.name, "My  Blend");
    EXPECT_EQ(std::make_tuple(r.out.type, r.out.file_type, r.seed), std::make_tuple(13, 17, 12u));
    EXPECT_EQ(r.default_spec.text, "default linear 0.7,0.3");
    ASSERT_EQ(r.layer_rules.size(), 2u);
    const LayerRule &one = r.layer_rules[0], &reversed = r.layer_rules[1];
    EXPECT_EQ(std::make_tuple(one.first, one.last, one.spec.method),
              std::make_tuple(5, 5, BlendMethod::slerp));
    EXPECT_EQ(std::make_pair(reversed.first, reversed.last), std::make_pair(3, 1));
    ASSERT_EQ(r.tensor_rules.size(), 1u);
    EXPECT_EQ(r.tensor_rules[0].pattern, "token_embd*");
    EXPECT_EQ(r.tensor_rules[0].spec.text, "tensor token_embd* pick 1");
    std::string stack;
    for (const StackSlice& s : r.stack) {
        stack += std::to_string(s.source) + ":" + std::to_string(s.layer) + " ";
    }
    EXPECT_EQ(stack, "0:0 0:1 1:0 1:1 0:2 1:3 ");
    EXPECT_EQ(parse_recipe("name My#Blend # two marks", 2).name, "My");
    // Without a default line, one source means pick 0 and more mean linear.
    EXPECT_EQ(parse_recipe("", 1).default_spec.method, BlendMethod::pick);
    EXPECT_EQ(parse_recipe("# only a comment\n", 2).default_spec.method, BlendMethod::linear);
}

TEST(RecipeText, FailureMessagesAndTheOrderOfFinalChecks) {
    const std::string range =
        "vector::_M_range_check: __n (which is 1) >= this->size() (which is 1)";
    const std::string pick = "pick index out of range in: ";
    const std::string two = "slerp / nearswap need at least 2 sources";
    struct Case {
        std::string text;
        int line;  // 0: a final check, without a line prefix
        std::string message;
        int32_t sources = 2;
    };
    const std::vector<Case> cases = {
        {"\n\n\n\ndefault blend 0.5", 5, "unknown method 'blend' in: default blend 0.5"},
        {"# c\nout", 2, range},
        {"seed 1\r\nseed 2\r\nlayers\r\n", 3, range},
        {"\v\n\f\v\f\nseed 5\n\f\nbad directive", 5, "unknown directive 'bad'"},
        {"tensor *attn#q* pick 0", 1, "missing method in: tensor *attn"},
        {"Default linear", 1, "unknown directive 'Default'"},
        {"nameX foo", 1, "unknown directive 'nameX'"},
        {"default SLERP 0.5", 1, "unknown method 'SLERP' in: default SLERP 0.5"},
        {"out q4_k_m", 1, "unknown out type 'q4_k_m'"},
        {"seed abc", 1, "stoull"},
        {"layers -1-3 pick 0", 1, "stoi"},
        {"layers 0- pick 0", 1, "stoi"},
        {"default slerp >0.8", 1, "stof"},
        {"default slerp 0.2>", 1, "stof"},
        {"default pick x", 1, "stoi"},
        {"stack 0:0 1", 1, "stack slice needs src:a-b"},
        {"stack :1", 1, "stoi"},
        // Final checks run after the last line and carry no line number.
        {"default linear\nstack", 0, "", 1},
        {"layers 0 pick -1", 0, pick + "layers 0 pick -1"},
        {"tensor x nearswap", 0, two, 1},
        {"stack 2:0-3", 0, "stack source index out of range"},
        {"stack -1:0", 0, "stack source index out of range"},
        {"seed 1\ndefault pick 7\n\n\n\n\n\n\nfoo", 9, "unknown directive 'foo'"},
        {"tensor t pick 5\nlayers 0 pick 6\ndefault pick 2", 0, pick + "default pick 2"},
        {"tensor t pick 5\nlayers 0 slerp", 0, two, 1},
        {"stack 3:0\ntensor t pick 5\nlayers 1 pick 4", 0, pick + "layers 1 pick 4"},
        {"stack 3:0\ntensor a pick 0\ntensor b pick 5", 0, pick + "tensor b pick 5"},
    };
    for (const Case& c : cases) {
        const std::string got = outcome([&] { return parse_recipe(c.text, c.sources).name; });
        const std::string prefix = c.line ? "recipe line " + std::to_string(c.line) + ": " : "";
        EXPECT_EQ(got, c.message.empty() ? "Tevrin Blend" : prefix + c.message) << c.text;
    }
}

// Each example names the source count it is meant for in a "# sources: N" line.
TEST(RecipeText, ExamplesParse) {
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(
             std::filesystem::path(TEVRIN_SOURCE_DIR) / "examples")) {
        if (entry.path().extension() != ".txt") {
            continue;
        }
        SCOPED_TRACE(entry.path().string());
        std::ifstream in(entry.path());
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        const size_t at = text.find("# sources: ");
        ASSERT_NE(at, std::string::npos);
        const Recipe recipe = parse_recipe(text, std::stoi(text.substr(at + 11)));
        for (const StackSlice& slice : recipe.stack) {
            // The sample models have at least 4 layers in source 0, 6 in source 1.
            EXPECT_LT(slice.layer, slice.source == 0 ? 4 : 6);
        }
        ++checked;
    }
    EXPECT_GE(checked, 5);
}

}  // namespace
}  // namespace tevrin
