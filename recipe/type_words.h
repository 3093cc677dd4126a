// The table of output type words: the plain tensor types, "keep", and the named
// mixes. Read-only after first use; safe to read from any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "recipe/recipe.h"

namespace tevrin {

struct TypeWord {
    const char* word;  // lower case
    OutType out;
};

// Every word in the order the documentation lists them.
const std::vector<TypeWord>& type_words();

// The word of a mix ("q4_k_m"), or "none".
const char* mix_word(QuantMix mix);

}  // namespace tevrin
