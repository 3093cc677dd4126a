// Shared vocabulary rows. A donor whose vocabulary grew or shrank against the
// base's (a fine-tune that added tokens, or a base that did) holds its
// vocabulary tensors (token_embd, output, any tensor with one row per token) in
// another shape. When its tokenizer agrees with the base's on every token both
// have, its rows still mean the same tokens, so it gives the rows both have and
// the base alone gives the rest.
//
// Pure functions of the sources' headers; planning thread only.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "fuse/tensor_plan.h"

namespace tevrin {

// The number of rows `donor` can give to a tensor that the base holds in shape
// `base_ne` when the donor's own tensor has shape `donor_ne`: the smaller row
// count when the shapes differ in the row count only (a matrix, no third
// dimension), each row count is its model's vocabulary size (the length of
// tokenizer.ggml.tokens), and the two token lists are equal on the shared
// entries. 0 when any of that fails.
int64_t shared_vocab_rows(const SourceModel& base, const SourceModel& donor,
                          const std::array<int64_t, 4>& base_ne,
                          const std::array<int64_t, 4>& donor_ne);

// One note per donor that some plan aligns on shared rows:
// "source <s> vocabulary aligned on <n> shared rows of <rows>".
void add_vocab_notes(const SourceList& sources, const std::vector<TensorPlan>& plans,
                     std::vector<std::string>& notes);

}  // namespace tevrin
