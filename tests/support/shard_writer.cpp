#include "tests/support/shard_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

#include "model/gguf_handle.h"
#include "model/kv_text.h"
#include "model/shard_names.h"
#include "model/source_model.h"

namespace tevrin::testing {

namespace {

GgufHandle empty_like(const gguf_context* source) {
    const int64_t id = gguf_find_key(source, "general.alignment");
    return id >= 0 ? empty_gguf_with_alignment(gguf_get_val_u32(source, id))
                   : GgufHandle(gguf_init_empty());
}

// Tensor order of every shard: consecutive runs of the source's tensors.
std::vector<std::vector<int64_t>> shard_members(int64_t n, const ShardCut& cut) {
    std::vector<std::vector<int64_t>> members;
    for (int64_t first = 0; first < n; first += cut.tensors_per_shard) {
        members.emplace_back();
        if (cut.repeat_last && first > 0) {
            members.back().push_back(first - 1);
        }
        for (int64_t i = first; i < std::min(n, first + cut.tensors_per_shard); ++i) {
            members.back().push_back(i);
        }
    }
    return members;
}

std::string full_kv_text(const gguf_context* g, int64_t id) {
    std::string text = std::to_string(gguf_get_kv_type(g, id)) + ":" + kv_value_text(g, id);
    if (gguf_get_kv_type(g, id) == GGUF_TYPE_STRING) {
        text += gguf_get_val_str(g, id);  // beyond the report's cut
    }
    return text;
}

}  // namespace

std::vector<std::string> write_shards(const std::string& path, const std::string& prefix,
                                      const ShardCut& cut) {
    ggml_context* data = nullptr;
    gguf_init_params params = {false, &data};
    GgufHandle source(gguf_init_from_file(path.c_str(), params));
    GgmlHandle data_owner(data);
    if (!source) {
        throw std::runtime_error("cannot read " + path);
    }
    const int64_t n = gguf_get_n_tensors(source.get());
    const auto members = shard_members(n, cut);
    const int32_t count = int32_t(members.size());
    std::vector<std::string> paths;
    for (int32_t no = 0; no < count; ++no) {
        GgufHandle shard = empty_like(source.get());
        if (no == 0) {
            gguf_set_kv(shard.get(), source.get());
        }
        gguf_set_val_u16(shard.get(), kSplitNoKey, uint16_t(no));
        gguf_set_val_u16(shard.get(), kSplitCountKey, uint16_t(count));
        gguf_set_val_i32(shard.get(), kSplitTensorsKey,
                         int32_t(cut.claimed_tensors >= 0 ? cut.claimed_tensors : n));
        for (const int64_t i : members[size_t(no)]) {
            gguf_add_tensor(shard.get(),
                            ggml_get_tensor(data, gguf_get_tensor_name(source.get(), i)));
        }
        paths.push_back(shard_path(prefix, no, count));
        if (!gguf_write_to_file(shard.get(), paths.back().c_str(), false)) {
            throw std::runtime_error("cannot write " + paths.back());
        }
    }
    return paths;
}

void expect_same_model(const std::string& a, const std::string& b,
                       const std::set<std::string>& ignored) {
    SourceModel ma, mb;
    ma.open(a);
    mb.open(b);
    auto keys = [&](const SourceModel& m) {
        std::map<std::string, std::string> all;
        for (int64_t id = 0; id < gguf_get_n_kv(m.gguf); ++id) {
            if (!ignored.count(gguf_get_key(m.gguf, id))) {
                all[gguf_get_key(m.gguf, id)] = full_kv_text(m.gguf, id);
            }
        }
        return all;
    };
    EXPECT_EQ(keys(ma), keys(mb)) << a << " vs " << b;
    ASSERT_EQ(tensor_count(ma), tensor_count(mb)) << a << " vs " << b;
    for (int64_t i = 0; i < tensor_count(ma); ++i) {
        ASSERT_STREQ(tensor_name(ma, i), tensor_name(mb, i));
        ASSERT_EQ(tensor_type(ma, i), tensor_type(mb, i)) << tensor_name(ma, i);
        ASSERT_EQ(tensor_shape(ma, i), tensor_shape(mb, i)) << tensor_name(ma, i);
        EXPECT_EQ(std::memcmp(tensor_data(ma, i), tensor_data(mb, i), tensor_size(ma, i)), 0)
            << tensor_name(ma, i) << " in " << a << " vs " << b;
    }
}

}  // namespace tevrin::testing
