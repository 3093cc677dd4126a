// Where sources differ: per shared tensor, the cosine similarity and the relative
// L2 distance of each source against the first (the reference), and their
// parameter-weighted means per layer and role.
//
// Tensors are paired by name; a pair is compared when both hold the tensor in the
// same shape and both types decode to floats. Values are the fusion's own: F16
// rows are summed as stored (each half converts to a float exactly), others
// decoded as a fusion does, a few rows at a time into a small scratch. Work goes
// in chunks of rows (at most kChunkElements elements each) over all threads;
// every sum is a double sum over a fixed block of rows, and blocks are added up
// in order, so the figures depend neither on the thread count nor on the
// chunking. Source pages are released after each chunk, as in a fusion.
// compare_sources runs on the calling thread plus workers; `progress` is called
// on the calling thread only.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "fuse/fuse.h"

namespace tevrin {

// Role of a tensor, read from its name (the part after "blk.N." for block
// tensors): a name containing "norm" is a norm, else "attn_..." is attention and
// "ffn_..." feed-forward; anything else is other.
enum class CompareRole : int32_t { attention, feed_forward, norm, other };

// Columns of a summary: the three roles, then all tensors together.
constexpr int32_t kSummaryColumns = 4;
constexpr int32_t kOverallColumn = 3;

enum class PairStatus : int32_t {
    compared,       // figures set (they may still be undefined: NaN)
    missing,        // the source lacks the tensor
    no_reference,   // the reference lacks it
    shape_differs,  // both have it, in other shapes
    not_decodable,  // a type that does not decode to floats (integer tensors)
};

struct PairFigures {
    PairStatus status = PairStatus::missing;
    // cos = <r,s> / (|r| |s|), clamped to [-1, 1]; distance = |s - r| / |r|. Both
    // zero tensors give 1 and 0. NaN where undefined: one side all zeros, or a
    // value that is not finite. NaN figures are left out of every mean.
    double cosine = 0.0;
    double distance = 0.0;
};

struct TensorComparison {
    std::string name;
    int32_t layer = -1;  // -1 outside the blocks
    CompareRole role = CompareRole::other;
    int64_t params = 0;               // elements, of the reference's tensor when it has one
    std::vector<bool> present;        // per source, reference first
    std::vector<PairFigures> donors;  // donors[k] is source k + 1 against the reference
};

// Parameter-weighted means of the figures of the compared tensors of a group;
// `params` 0: no tensor with defined figures in the group.
struct FigureMean {
    double cosine = 0.0;
    double distance = 0.0;
    int64_t params = 0;
};

using SummaryRow = std::array<FigureMean, kSummaryColumns>;

struct LayerSummary {
    int32_t layer = -1;              // -1: the tensors outside the blocks
    std::vector<SummaryRow> donors;  // per donor, as in TensorComparison
};

struct Comparison {
    std::vector<std::string> paths;         // reference first
    std::vector<TensorComparison> tensors;  // reference order, then each source's extra ones
    std::vector<LayerSummary> layers;       // block layers 0..max in order, then the outside group
    std::vector<SummaryRow> overall;        // per donor, over every tensor
};

CompareRole tensor_role(const std::string& name);
const char* role_word(CompareRole role);  // "attention", "feed-forward", "norm", "other"
const char* status_word(PairStatus status);

// `threads` of 0 or less uses the hardware concurrency. `cancel` may be null; a
// true value stops the run at the next chunk with "cancelled". Fails with
// "compare takes 2 to 8 sources" or the source-opening failures of SourceModel.
// A source cut short under the run raises SIGBUS, as in a fusion.
Comparison compare_sources(const std::vector<std::string>& paths, int threads,
                           const std::atomic<bool>* cancel, const ProgressFn& progress);

}  // namespace tevrin
