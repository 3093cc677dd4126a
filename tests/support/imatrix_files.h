// Writes importance-matrix files in the two forms the inference tree's imatrix
// tool writes, for the reader's tests and for runs with --imatrix.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tevrin::testing {

struct MatrixEntry {
    std::string name;           // weight tensor name
    std::vector<float> sums;    // columns x matrices, columns first
    std::vector<float> counts;  // one per matrix (GGUF form); the first is the call count
};

// GGUF form: "<name>.in_sum2" and "<name>.counts" tensors plus the imatrix keys.
void write_matrix_gguf(const std::string& path, const std::vector<MatrixEntry>& entries);

// Binary form: count, then name, calls (counts[0]), values; then the trailing chunk
// count and data set name.
void write_matrix_binary(const std::string& path, const std::vector<MatrixEntry>& entries);

}  // namespace tevrin::testing
