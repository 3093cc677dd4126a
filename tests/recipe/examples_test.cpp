// Every recipe under examples/ parses with the source count it declares in its
// "# sources: N" line.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "recipe/parse_recipe.h"

namespace tevrin {
namespace {

TEST(ExampleRecipes, ParseWithTheirDeclaredSourceCount) {
    const std::filesystem::path folder = std::filesystem::path(TEVRIN_SOURCE_DIR) / "examples";
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".txt") {
            continue;
        }
        SCOPED_TRACE(entry.path().string());
        std::ifstream in(entry.path());
        std::stringstream buffer;
        buffer << in.rdbuf();
        const std::string text = buffer.str();

        const std::string marker = "# sources: ";
        const size_t at = text.find(marker);
        ASSERT_NE(at, std::string::npos) << "no '# sources: N' line";
        const int32_t sources = std::stoi(text.substr(at + marker.size()));
        ASSERT_GE(sources, 1);

        const Recipe recipe = parse_recipe(text, sources);
        if (entry.path().filename() == "stack.txt") {
            EXPECT_FALSE(recipe.stack.empty());
            for (const StackSlice& slice : recipe.stack) {
                // The sample models of the tests have 4+ layers in source 0, 6+ in source 1.
                EXPECT_LT(slice.layer, slice.source == 0 ? 4 : 6);
            }
        }
        if (entry.path().filename() == "requantize.txt") {
            EXPECT_EQ(recipe.out.type, 12);
            EXPECT_EQ(sources, 1);
        }
        ++checked;
    }
    EXPECT_GE(checked, 5);
}

}  // namespace
}  // namespace tevrin
