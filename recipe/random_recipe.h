// Generates a complete recipe from a seed, for --random.
//
// The text is a pure function of the arguments: the same four values give the same
// bytes on every machine. `layer_count` of 0 or less stands for 16. `out_type` is
// written behind "out" unchecked.
//
// Threads: pure; safe on any thread.
#pragma once

#include <cstdint>
#include <string>

namespace tevrin {

std::string random_recipe(int32_t source_count, int32_t layer_count, uint64_t seed,
                          const std::string& out_type);

}  // namespace tevrin
