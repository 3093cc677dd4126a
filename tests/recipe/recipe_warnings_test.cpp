// Recipe warnings: each mistake with one recipe that shows it and its corrected
// twin, which must stay silent; warnings gathered before a failing line survive
// the failure; and the Recipe is the same whether warnings are asked for or not.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

std::vector<std::string> warnings_of(const std::string& text, int32_t sources) {
    std::vector<std::string> warnings;
    parse_recipe(text, sources, &warnings);
    return warnings;
}

bool same_spec(const MethodSpec& a, const MethodSpec& b) {
    return a.method == b.method && a.t == b.t && a.t_end == b.t_end && a.weights == b.weights &&
           a.weights_end == b.weights_end && a.t_inner == b.t_inner &&
           a.weights_inner == b.weights_inner && a.pick == b.pick && a.line == b.line;
}

TEST(RecipeWarnings, EachMistakeWarnsAndItsCorrectionDoesNot) {
    const struct {
        std::string wrong, warning, right;
    } cases[] = {
        {"default linear 0.5, 0.5",
         "recipe line 1: '0.5' is ignored: linear takes 1 argument (a weight list has no blanks",
         "default linear 0.5,0.5"},
        {"default median 1", "recipe line 1: '1' is ignored: median takes 0 arguments",
         "default median"},
        {"default ties 0.5 1,1 0.2", "recipe line 1: '0.2' is ignored: ties takes 2 arguments",
         "default ties 0.5 1,1"},
        {"default slerp 0.3x", "recipe line 1: '0.3x' is read as 0.3", "default slerp 0.3"},
        {"default slerp 0.2>0.8)", "recipe line 1: '0.8)' is read as 0.8", "default slerp 0.2>0.8"},
        {"default ties 0.5 1,1x", "recipe line 1: '1x' is read as 1", "default ties 0.5 1,1"},
        {"\nlayers 1-2x ties", "recipe line 2: '2x' is read as 2", "\nlayers 1-2 ties"},
        {"seed 7x", "recipe line 1: '7x' is read as 7", "seed 7"},
        {"default pick 1x", "recipe line 1: '1x' is read as 1", "default pick 1"},
        {"stack 0:0-1x", "recipe line 1: '1x' is read as 1", "stack 0:0-1"},
        {"layers 3-1 ties", "recipe line 1: layers 3-1 is empty", "layers 3-3 ties"},
        {"tensor blk.[0-2].* ties", "recipe line 1: '[' in 'blk.[0-2].*' is matched literally",
         "tensor blk.?.* ties"},
        {"tensor blk.{0,1}.* ties", "recipe line 1: '{' in", "tensor blk.*.* ties"},
        {"stack 0:0-1\nlayers 0-1 ties",
         "recipe line 2: layers 0-1 applies to nothing in a stacked run",
         "stack 0:0-1\ntensor output* ties"},
        {"default linear 1,1,1", "recipe line 1: 3 weights for 2 sources", "default linear 1,1"},
        {"tensor x dare 0.3 1,1>1,1,1", "recipe line 1: 3 weights for 2 sources",
         "tensor x dare 0.3 1,1>0,1"},
        {"layers 0-3 task 1 1,1>1,1,1>1", "recipe line 1: 3 weights for 2 sources",
         "layers 0-3 task 1 1,1>1,0>1"},
    };
    for (const auto& item : cases) {
        const std::vector<std::string> wrong = warnings_of(item.wrong, 2);
        ASSERT_EQ(wrong.size(), 1u) << item.wrong;
        EXPECT_EQ(wrong[0].rfind(item.warning, 0), 0u) << wrong[0];
        const std::vector<std::string> right = warnings_of(item.right, 2);
        EXPECT_TRUE(right.empty()) << item.right << ": " << right[0];

        std::vector<std::string> ignored;
        const Recipe plain = parse_recipe(item.wrong, 2);
        const Recipe warned = parse_recipe(item.wrong, 2, &ignored);
        EXPECT_TRUE(same_spec(plain.default_spec, warned.default_spec)) << item.wrong;
        EXPECT_EQ(plain.layer_rules.size(), warned.layer_rules.size());
        EXPECT_EQ(plain.stack.size(), warned.stack.size());
        EXPECT_EQ(plain.seed, warned.seed);
    }
}

TEST(RecipeWarnings, SurviveTheFailureOfTheirLine) {
    std::vector<std::string> warnings;
    try {
        parse_recipe("default median 2\ndefault slerp t=0.3", 2, &warnings);
        FAIL() << "parsed";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "recipe line 2: stof");
    }
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[1],
              "recipe line 2: 't=0.3': arguments are bare values in fixed places, as in "
              "'slerp 0.3'");
}

}  // namespace
}  // namespace tevrin
