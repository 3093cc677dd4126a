// What the system knows of each blend method, in one table indexed by
// BlendMethod: its recipe word, what its argument places hold, their defaults,
// the range its scalar is clamped to, how a weight list is filled, and whether it
// needs two sources. The parser, the random recipe generator, the row pipeline's
// rewrite onto the active sources and the blend kernels all read this table;
// adding a method means one row here and one kernel in blend/.
//
// Read-only constant data; safe on any thread.
#pragma once

#include <cstdint>
#include <string>

#include "recipe/recipe.h"

namespace tevrin {

// What the first argument place after the method word holds.
enum class FirstPlace : int32_t {
    none,     // nothing is read
    scalar,   // a number, or "a>b" for a schedule, read into t
    weights,  // a weight list, or "w,w>w,w" for a schedule
    index,    // a source index, read into pick
};

struct MethodInfo {
    const char* word;
    FirstPlace first;
    float t_default;      // t when the scalar place is absent
    bool weights_second;  // the second place holds a weight list
    float weight_fill;    // weight of a source a non-empty list does not reach
    bool clamped;         // t is clamped to [t_min, t_max] by the kernel
    float t_min;          // a NaN t takes t_min too
    float t_max;
    bool needs_two_sources;  // the recipe fails with fewer than 2 sources
};

// The row of `method`; asserts a valid enum value.
const MethodInfo& method_info(BlendMethod method);

// The recipe word of a method ("linear", "slerp", ...).
const char* method_word(BlendMethod method);

// The method whose word is `word`, or false when no method has it.
bool find_method(const std::string& word, BlendMethod& method);

// True when the method takes a weight list in one of its places.
bool method_is_weighted(BlendMethod method);

// The method's t as its kernel uses it: clamped where the table says so, a NaN
// taking the lower end; unclamped methods get t unchanged.
float method_t(const MethodSpec& spec);

}  // namespace tevrin
