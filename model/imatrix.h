// Importance matrices: per weight tensor, one mean squared activation per input
// column (per column and expert for expert tensors), as the inference tree's
// imatrix tool writes them, in its GGUF form or its older binary form.
//
// read_importance_matrix gives the values the quantizer is handed: sums divided
// by their counts. The result is a plain value, read-only once made.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tevrin {

struct ImportanceMatrix {
    std::string path;
    std::map<std::string, std::vector<float>> entries;  // by weight tensor name
};

// GGUF form: tensors "<name>.in_sum2" (F32, columns x matrices) and
// "<name>.counts" (F32, one per matrix); a matrix with a count of 0 gets 1 for
// every value. Binary form: an i32 entry count, then per entry an i32 name
// length, the name, an i32 call count, an i32 value count and the f32 values
// (sums times calls), then optional trailing fields that are ignored.
// Fails with "cannot read importance matrix <path>", "not an importance matrix:
// <path>" (also for an entry without its counts or of another type), or
// "importance matrix entry <name> is not finite".
ImportanceMatrix read_importance_matrix(const std::string& path);

}  // namespace tevrin
