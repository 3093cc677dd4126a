#include "fuse/tensor_records.h"

#include <stdexcept>

namespace tevrin {

GgmlHandle add_tensor_records(gguf_context* out, const std::vector<TensorPlan>& plans) {
    return add_tensor_records(out, plans, 0, plans.size());
}

GgmlHandle add_tensor_records(gguf_context* out, const std::vector<TensorPlan>& plans, size_t first,
                              size_t end) {
    ggml_init_params params = {ggml_tensor_overhead() * (end - first) + 1024, nullptr, true};
    GgmlHandle records(ggml_init(params));
    for (size_t i = first; i < end; ++i) {
        const TensorPlan& plan = plans[i];
        // ggml keeps names of at most GGML_MAX_NAME - 1 bytes; a longer one would be
        // cut and could collide with another.
        if (plan.name.size() >= GGML_MAX_NAME) {
            throw std::runtime_error("tensor name too long: " + plan.name);
        }
        ggml_tensor* t =
            ggml_new_tensor(records.get(), ggml_type(plan.out_type), plan.n_dims, plan.ne.data());
        // The record keeps only the dimensions up to the last one above 1, so a
        // shape such as 64x0 would be stored as 64 and the header would promise
        // bytes that do not exist.
        const int64_t rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
        if (ggml_nbytes(t) != ggml_row_size(t->type, plan.ne[0]) * size_t(rows)) {
            throw std::runtime_error("tensor " + plan.name +
                                     " has an empty dimension GGUF cannot keep");
        }
        ggml_set_name(t, plan.name.c_str());
        gguf_add_tensor(out, t);
    }
    return records;
}

}  // namespace tevrin
