// Warnings on a parsed recipe: rules that are legal but almost surely not what
// their writer meant. They never change the Recipe or make a run fail.
//
// The parser adds, per line, what it read leniently (text behind a number, tokens
// no argument place takes, "t=0.3" arguments); this unit adds what the whole
// recipe shows: an empty layer range ("3-1"), a glob with '[', ']', '{' or '}'
// (taken literally), `layers` rules in a stacked run, and more weights than
// sources. Checks that need the sources (rules that match no tensor, ranges beyond
// the base's depth, pick indices no tensor has) are in fuse/plan_warnings.h.
// Every warning starts with "recipe line N: ".
//
// Threads: pure; safe on any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

std::vector<std::string> recipe_warnings(const Recipe& recipe, int32_t source_count);

// "recipe line N: ", the prefix of every warning and failure of a line.
std::string line_prefix(int32_t line);

}  // namespace tevrin
