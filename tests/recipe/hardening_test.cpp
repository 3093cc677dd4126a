// Recipe text that would cost far more than its size.
#include <gtest/gtest.h>

#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

std::string parse_error(const std::string& text) {
    try {
        parse_recipe(text, 2);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// The length is checked before a slice is expanded, over all stack lines together.
TEST(RecipeHardening, StackLengthIsCappedBeforeExpansion) {
    const std::string too_long = "stack too long (at most 65536 layers)";
    EXPECT_EQ(parse_error("stack 0:0-2000000000"), "recipe line 1: " + too_long);
    EXPECT_EQ(parse_error("stack 1:0-65535\n\nstack 0:7"), "recipe line 3: " + too_long);
    EXPECT_EQ(parse_error("stack 0:-2147483648"), "recipe line 1: stoi");
    EXPECT_EQ(parse_recipe("stack 1:0-65535 0:9-2", 2).stack.size(), 65536u);
}

}  // namespace
}  // namespace tevrin
