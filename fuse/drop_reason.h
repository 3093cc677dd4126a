// Why a source does not feed a tensor the plan wants from it, for the plan
// report: the name is missing, or the shape differs, and if it differs only where
// the two vocabularies' sizes stand, it is another vocabulary.
//
// Pure; reads the sources' headers only; safe on any thread.
#pragma once

#include <array>
#include <cstdint>

#include "model/source_model.h"

namespace tevrin {

enum class DropReason : int32_t {
    none,              // the source feeds the tensor, or was never asked for it
    missing,           // no tensor of that name
    other_shape,       // a tensor of that name in another shape
    other_vocabulary,  // another shape only in the dimension of a vocabulary of another size
};

const char* drop_reason_word(DropReason reason);

// The reason for a source whose tensor `found` (-1: none of that name) does not
// match `shape`, the base's tensor's shape.
DropReason drop_reason(const SourceModel& base, const std::array<int64_t, 4>& shape,
                       const SourceModel& source, int64_t found);

// The number of tokens of a model's vocabulary (tokenizer.ggml.tokens), or -1.
int64_t vocabulary_size(const SourceModel& model);

}  // namespace tevrin
