#include "fuse/vocab_align.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace tevrin {
namespace {

const char* const kTokensKey = "tokenizer.ggml.tokens";

// The id of the token list, or -1 when there is none or it holds no strings.
int64_t token_list(const gguf_context* gguf) {
    const int64_t id = gguf_find_key(gguf, kTokensKey);
    if (id < 0 || gguf_get_kv_type(gguf, id) != GGUF_TYPE_ARRAY ||
        gguf_get_arr_type(gguf, id) != GGUF_TYPE_STRING) {
        return -1;
    }
    return id;
}

bool tokens_agree(const gguf_context* a, int64_t a_id, const gguf_context* b, int64_t b_id,
                  size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (std::strcmp(gguf_get_arr_str(a, a_id, i), gguf_get_arr_str(b, b_id, i)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

int64_t shared_vocab_rows(const SourceModel& base, const SourceModel& donor,
                          const std::array<int64_t, 4>& base_ne,
                          const std::array<int64_t, 4>& donor_ne) {
    const bool matrices = base_ne[2] == 1 && base_ne[3] == 1 && donor_ne[2] == 1 &&
                          donor_ne[3] == 1 && base_ne[0] == donor_ne[0];
    if (!matrices || base_ne[1] == donor_ne[1]) {
        return 0;
    }
    const int64_t base_id = token_list(base.gguf);
    const int64_t donor_id = token_list(donor.gguf);
    if (base_id < 0 || donor_id < 0 || gguf_get_arr_n(base.gguf, base_id) != uint64_t(base_ne[1]) ||
        gguf_get_arr_n(donor.gguf, donor_id) != uint64_t(donor_ne[1])) {
        return 0;
    }
    const int64_t shared = std::min(base_ne[1], donor_ne[1]);
    if (shared < 1 || !tokens_agree(base.gguf, base_id, donor.gguf, donor_id, size_t(shared))) {
        return 0;
    }
    return shared;
}

void add_vocab_notes(const SourceList& sources, const std::vector<TensorPlan>& plans,
                     std::vector<std::string>& notes) {
    std::set<std::string> seen;
    for (const TensorPlan& plan : plans) {
        for (size_t s = 1; s < plan.source_tensors.size() && s < plan.source_rows.size(); ++s) {
            const int64_t index = plan.source_tensors[s];
            if (index < 0 || plan.only_source >= 0 || tensor_shape(*sources[s], index) == plan.ne) {
                continue;
            }
            const std::string note = "source " + std::to_string(s) + " vocabulary aligned on " +
                                     std::to_string(plan.source_rows[s]) + " shared rows of " +
                                     std::to_string(plan.ne[1]);
            if (seen.insert(note).second) {
                notes.push_back(note);
            }
        }
    }
}

}  // namespace tevrin
