// Recipe text to Recipe.
//
// The text is line based: "name", "out", "seed", "default", "layers", "tensor",
// "type" and "stack" directives, "#" comments to the end of a line. A failure inside a line
// is rethrown as "recipe line N: <message>"; the final checks (pick index, slerp /
// nearswap source count, stack source index) run after the last line and carry no
// line number. The first failure ends parsing; no partial Recipe is returned.
// A stack of more than 65536 layers fails on the line that would pass that length,
// with "stack too long (at most 65536 layers)", before any entry of it is made.
//
// Threads: pure; safe on any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

// `source_count` decides the default method (pick for one source, linear for
// more) and bounds pick indices and stack sources. With `warnings` set, the
// warnings of recipe_warnings.h are appended to it, also those of the lines
// before a failure; the Recipe is the same with or without it.
Recipe parse_recipe(const std::string& text, int32_t source_count,
                    std::vector<std::string>* warnings = nullptr);

}  // namespace tevrin
