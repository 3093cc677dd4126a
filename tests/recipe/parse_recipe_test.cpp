// Recipe text: directives, ranges and slices, comments and line ends, messages
// and the final checks.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

template <typename F>
std::string failure_of(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

std::string parse_failure(const std::string& text, int32_t sources = 2) {
    return failure_of([&] { parse_recipe(text, sources); });
}

std::vector<std::pair<int32_t, int32_t>> entries(const Recipe& recipe) {
    std::vector<std::pair<int32_t, int32_t>> out;
    for (const StackSlice& s : recipe.stack) {
        out.emplace_back(s.source, s.layer);
    }
    return out;
}

const char* const kRangeCheck =
    "vector::_M_range_check: __n (which is 1) >= this->size() (which is 1)";

TEST(RecipeDirectives, StartValuesWithoutDirectives) {
    for (const std::string text : {"", "\n\n", "# only a comment\n  \t\n# another", "\v\f\n"}) {
        for (const int32_t sources : {1, 2, 8}) {
            const Recipe r = parse_recipe(text, sources);
            EXPECT_EQ(r.name, "Tevrin Blend");
            EXPECT_EQ(r.out.type, 8);
            EXPECT_EQ(r.out.file_type, 7);
            EXPECT_FALSE(r.out.keep);
            EXPECT_EQ(r.seed, 42u);
            EXPECT_EQ(r.default_spec.method,
                      sources == 1 ? BlendMethod::pick : BlendMethod::linear);
            EXPECT_EQ(r.default_spec.pick, 0);
            EXPECT_TRUE(r.default_spec.weights.empty());
            EXPECT_TRUE(r.layer_rules.empty() && r.tensor_rules.empty() && r.stack.empty());
        }
    }
}

TEST(RecipeDirectives, CompleteRecipe) {
    const Recipe r = parse_recipe(
        "name My Blend\nout q5_k\nseed 7\ndefault linear 0.7,0.3\nlayers 0-3 pick 0\n"
        "layers 4-27 slerp 0.2>0.8\ntensor token_embd* pick 1\ntensor *norm* linear\n",
        2);
    EXPECT_EQ(r.name, "My Blend");
    EXPECT_EQ(r.out.type, 13);
    EXPECT_EQ(r.seed, 7u);
    EXPECT_EQ(r.default_spec.weights, (std::vector<float>{0.7f, 0.3f}));
    EXPECT_EQ(r.default_spec.text, "default linear 0.7,0.3");
    ASSERT_EQ(r.layer_rules.size(), 2u);
    EXPECT_EQ(r.layer_rules[1].first, 4);
    EXPECT_EQ(r.layer_rules[1].last, 27);
    EXPECT_TRUE(r.layer_rules[1].spec.scheduled);
    ASSERT_EQ(r.tensor_rules.size(), 2u);
    EXPECT_EQ(r.tensor_rules[0].pattern, "token_embd*");
    EXPECT_EQ(r.tensor_rules[0].spec.pick, 1);
    EXPECT_EQ(r.tensor_rules[1].spec.text, "tensor *norm* linear");
}

TEST(RecipeDirectives, NamesSeedsAndRepeats) {
    EXPECT_EQ(parse_recipe("name  My  Blend  # first try", 2).name, "My  Blend");
    EXPECT_EQ(parse_recipe("name", 2).name, "");
    EXPECT_EQ(parse_recipe("name a\nname b", 2).name, "b");
    EXPECT_EQ(parse_recipe("name\tTabbed\t", 2).name, "Tabbed");
    EXPECT_EQ(parse_recipe("seed 12abc", 2).seed, 12u);
    EXPECT_EQ(parse_recipe("seed -1", 2).seed, UINT64_MAX);
    EXPECT_EQ(parse_recipe("seed 18446744073709551615", 2).seed, UINT64_MAX);
    EXPECT_EQ(parse_recipe("seed 1\nseed 2 3", 2).seed, 2u);
    EXPECT_EQ(parse_recipe("out Q8_0\nout Keep", 2).out.type, 43);
    EXPECT_EQ(parse_recipe("default ties\ndefault dare 0.2", 2).default_spec.method,
              BlendMethod::dare);
    EXPECT_TRUE(parse_recipe("stack", 2).stack.empty());
}

TEST(RecipeRanges, LayerRangesAndStackSlices) {
    const Recipe r = parse_recipe("layers 5 slerp\nlayers 3-1 pick 0\nlayers 0--2 median", 2);
    ASSERT_EQ(r.layer_rules.size(), 3u);
    EXPECT_EQ(std::make_pair(r.layer_rules[0].first, r.layer_rules[0].last), std::make_pair(5, 5));
    EXPECT_EQ(std::make_pair(r.layer_rules[1].first, r.layer_rules[1].last), std::make_pair(3, 1));
    EXPECT_EQ(r.layer_rules[2].last, -2);

    using E = std::vector<std::pair<int32_t, int32_t>>;
    EXPECT_EQ(entries(parse_recipe("stack 0:0-1 1:0-1 0:2", 2)),
              (E{{0, 0}, {0, 1}, {1, 0}, {1, 1}, {0, 2}}));
    EXPECT_EQ(entries(parse_recipe("stack 1:3\nstack 0:3-1 0:7-8", 2)),
              (E{{1, 3}, {0, 7}, {0, 8}}));
    EXPECT_EQ(entries(parse_recipe("stack 0:2147483646-2147483647", 1)),
              (E{{0, 2147483646}, {0, 2147483647}}));
}

TEST(RecipeLines, CommentsAndLineEnds) {
    const std::string crlf = "name A\r\nseed 9\r\nlayers 0-1 pick 1\r\n";
    const Recipe r = parse_recipe(crlf, 2);
    EXPECT_EQ(r.name, "A");
    EXPECT_EQ(r.seed, 9u);
    EXPECT_EQ(r.layer_rules.at(0).spec.text, "layers 0-1 pick 1");
    EXPECT_EQ(parse_recipe("seed 3", 2).seed, 3u);  // no final line feed
    EXPECT_EQ(parse_recipe("name My#Blend", 2).name, "My");
    const Recipe tail = parse_recipe("tensor blk.*.ffn* pick 1 # from the donor\n#x\n", 2);
    EXPECT_EQ(tail.tensor_rules.at(0).pattern, "blk.*.ffn*");
    EXPECT_EQ(tail.tensor_rules.at(0).spec.text, "tensor blk.*.ffn* pick 1");
}

TEST(RecipeLines, VerticalTabAndFormFeedLinesAreSkipped) {
    // Such a line survives the trim but holds no token; it counts as a line.
    EXPECT_EQ(parse_recipe("\v\n\f\v\f\nseed 5\n\f\n", 2).seed, 5u);
    EXPECT_EQ(parse_recipe("\vseed\f6", 2).seed, 6u);
    EXPECT_EQ(parse_failure("\v\n\f\v\f\nseed 5\n\f\nbad directive"),
              "recipe line 5: unknown directive 'bad'");
}

TEST(RecipeMessages, LineNumbersAndTexts) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\n\n\n\ndefault blend 0.5",
         "recipe line 5: unknown method 'blend' in: default blend 0.5"},
        {"# c\nout", std::string("recipe line 2: ") + kRangeCheck},
        {"seed", std::string("recipe line 1: ") + kRangeCheck},
        {"seed   # no number", std::string("recipe line 1: ") + kRangeCheck},
        {"layers", std::string("recipe line 1: ") + kRangeCheck},
        {"\r\ntensor", std::string("recipe line 2: ") + kRangeCheck},
        {"tensor *attn#q* pick 0", "recipe line 1: missing method in: tensor *attn"},
        {"layers 0-3", "recipe line 1: missing method in: layers 0-3"},
        {"default", "recipe line 1: missing method in: default"},
        {"Default linear", "recipe line 1: unknown directive 'Default'"},
        {"nameX foo", "recipe line 1: unknown directive 'nameX'"},
        {"out q4_k_m", "recipe line 1: unknown out type 'q4_k_m'"},
        {"seed abc", "recipe line 1: stoull"},
        {"seed 99999999999999999999999", "recipe line 1: stoull"},
        {"layers -1-3 pick 0", "recipe line 1: stoi"},
        {"layers 0- pick 0", "recipe line 1: stoi"},
        {"layers 2147483648 pick 0", "recipe line 1: stoi"},
        {"default slerp 1e39", "recipe line 1: stof"},
        {"stack 0", "recipe line 1: stack slice needs src:a-b"},
        {"stack 0:0 x", "recipe line 1: stack slice needs src:a-b"},
        {"stack 0:", "recipe line 1: stoi"},
        {"stack :1", "recipe line 1: stoi"},
        {"seed 1\r\nseed 2\r\nout\r\n", std::string("recipe line 3: ") + kRangeCheck},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_EQ(parse_failure(text), message) << text;
    }
}

TEST(RecipeFinalChecks, MessagesWithoutLinePrefix) {
    const std::vector<std::tuple<std::string, int32_t, std::string>> cases = {
        {"default pick 2", 2, "pick index out of range in: default pick 2"},
        {"layers 0 pick -1", 2, "pick index out of range in: layers 0 pick -1"},
        {"default slerp", 1, "slerp / nearswap need at least 2 sources"},
        {"tensor x nearswap", 1, "slerp / nearswap need at least 2 sources"},
        {"stack 2:0-3", 2, "stack source index out of range"},
        {"stack -1:0", 2, "stack source index out of range"},
        {"default linear", 1, ""},
        {"tensor x pick 1\nstack 1:0", 2, ""},
    };
    for (const auto& [text, sources, message] : cases) {
        EXPECT_EQ(parse_failure(text, sources), message) << text;
    }
}

TEST(RecipeFinalChecks, Order) {
    const std::vector<std::tuple<std::string, int32_t, std::string>> cases = {
        // Line failures come before any final check.
        {"seed 1\ndefault pick 7\n\n\n\n\n\n\nfoo", 2, "recipe line 9: unknown directive 'foo'"},
        // default, then layer rules, then tensor rules, then the stack.
        {"tensor t pick 5\nlayers 0 pick 6\ndefault pick 7", 2,
         "pick index out of range in: default pick 7"},
        {"tensor t pick 5\nlayers 0 slerp", 1, "slerp / nearswap need at least 2 sources"},
        {"stack 3:0\ntensor t pick 5\nlayers 1 pick 4", 2,
         "pick index out of range in: layers 1 pick 4"},
        {"stack 3:0\ntensor a pick 0\ntensor b pick 5", 2,
         "pick index out of range in: tensor b pick 5"},
    };
    for (const auto& [text, sources, message] : cases) {
        EXPECT_EQ(parse_failure(text, sources), message) << text;
    }
}

}  // namespace
}  // namespace tevrin
