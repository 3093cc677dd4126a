#include "fuse/output_parts.h"

#include <cctype>
#include <climits>
#include <stdexcept>

#include "fuse/tensor_records.h"
#include "model/shard_names.h"

namespace tevrin {

namespace {

constexpr size_t kMaxShards = 65535;  // split.count is a u16

std::vector<uint64_t> padded_sizes(const std::vector<TensorPlan>& plans, uint64_t alignment) {
    std::vector<uint64_t> sizes;
    sizes.reserve(plans.size());
    for (const TensorPlan& plan : plans) {
        const uint64_t rows = uint64_t(plan.ne[1] * plan.ne[2] * plan.ne[3]);
        const uint64_t size = ggml_row_size(ggml_type(plan.out_type), plan.ne[0]) * rows;
        sizes.push_back((size + alignment - 1) / alignment * alignment);
    }
    return sizes;
}

// A shard's header is laid out with the output's alignment, which loaders read
// from the shard's own general.alignment key.
GgufHandle empty_shard_like(const gguf_context* meta) {
    const int64_t id = gguf_find_key(meta, "general.alignment");
    if (id >= 0 && gguf_get_kv_type(meta, id) == GGUF_TYPE_UINT32) {
        return empty_gguf_with_alignment(gguf_get_val_u32(meta, id));
    }
    return GgufHandle(gguf_init_empty());
}

OutputPart shard_part(const gguf_context* meta, const std::string& prefix, size_t no, size_t count,
                      size_t tensors) {
    OutputPart part;
    part.path = shard_path(prefix, int32_t(no), int32_t(count));
    part.meta = empty_shard_like(meta);
    if (no == 0) {
        gguf_set_kv(part.meta.get(), meta);
    }
    gguf_set_val_u16(part.meta.get(), kSplitNoKey, uint16_t(no));
    gguf_set_val_u16(part.meta.get(), kSplitCountKey, uint16_t(count));
    gguf_set_val_i32(part.meta.get(), kSplitTensorsKey, int32_t(tensors));
    return part;
}

}  // namespace

std::vector<size_t> shard_starts(const std::vector<uint64_t>& sizes, const SplitLimits& limits) {
    std::vector<size_t> starts = {0};
    uint64_t bytes = 0;
    int64_t count = 0;
    for (size_t i = 0; i < sizes.size(); ++i) {
        const bool too_big = limits.max_bytes > 0 &&
                             (bytes > limits.max_bytes || sizes[i] > limits.max_bytes - bytes);
        const bool too_many = limits.max_tensors > 0 && count >= limits.max_tensors;
        if (count > 0 && (too_big || too_many)) {
            starts.push_back(i);
            bytes = 0;
            count = 0;
        }
        bytes += sizes[i];
        ++count;
    }
    return starts;
}

std::vector<OutputPart> make_output_parts(GgufHandle meta, const std::vector<TensorPlan>& plans,
                                          const std::string& output_path,
                                          const SplitLimits& limits) {
    std::vector<OutputPart> parts;
    if (limits.max_bytes == 0 && limits.max_tensors == 0) {
        parts.push_back(OutputPart{output_path, std::move(meta), nullptr, 0, plans.size()});
        parts[0].records = add_tensor_records(parts[0].meta.get(), plans, 0, plans.size());
        return parts;
    }
    if (plans.size() > size_t(INT32_MAX)) {
        throw std::runtime_error("too many tensors for split.tensors.count");
    }
    const std::vector<size_t> starts =
        shard_starts(padded_sizes(plans, gguf_get_alignment(meta.get())), limits);
    if (starts.size() > kMaxShards) {
        throw std::runtime_error("too many shards: " + std::to_string(starts.size()) +
                                 " (at most 65535)");
    }
    const std::string prefix = split_output_prefix(output_path);
    for (size_t no = 0; no < starts.size(); ++no) {
        parts.push_back(shard_part(meta.get(), prefix, no, starts.size(), plans.size()));
        OutputPart& part = parts.back();
        part.first = starts[no];
        part.end = no + 1 < starts.size() ? starts[no + 1] : plans.size();
        part.records = add_tensor_records(part.meta.get(), plans, part.first, part.end);
    }
    return parts;
}

std::string split_output_prefix(const std::string& output_path) {
    const std::string ext = ".gguf";
    if (output_path.size() > ext.size() &&
        output_path.compare(output_path.size() - ext.size(), ext.size(), ext) == 0) {
        return output_path.substr(0, output_path.size() - ext.size());
    }
    return output_path;
}

std::optional<uint64_t> parse_byte_size(const std::string& text) {
    uint64_t value = 0;
    size_t i = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        const uint64_t digit = uint64_t(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 + digit;
    }
    if (i == 0 || i + 1 < text.size()) {
        return std::nullopt;
    }
    uint64_t unit = 1;
    if (i < text.size()) {
        switch (std::toupper(static_cast<unsigned char>(text[i]))) {
            case 'K':
                unit = 1000;
                break;
            case 'M':
                unit = 1000000;
                break;
            case 'G':
                unit = 1000000000;
                break;
            default:
                return std::nullopt;
        }
    }
    if (value == 0 || value > UINT64_MAX / unit) {
        return std::nullopt;
    }
    return value * unit;
}

}  // namespace tevrin
