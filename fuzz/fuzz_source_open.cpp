// SourceModel::open on arbitrary bytes. Whatever it accepts must keep its promise:
// every tensor lies inside the mapping, and every byte of it can be read.
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "fuzz/temp_files.h"
#include "model/source_model.h"

namespace {

uint8_t touch_tensors(const tevrin::SourceModel& model) {
    uint8_t sum = 0;
    const int64_t n = tevrin::tensor_count(model);
    if (int64_t(model.tensor_index.size()) != n) {
        std::abort();
    }
    for (int64_t i = 0; i < n; ++i) {
        const tevrin::SourceShard& shard = model.shards[size_t(model.tensors[size_t(i)].shard)];
        const uint64_t begin = tevrin::tensor_file_offset(model, i);
        const uint64_t size = tevrin::tensor_size(model, i);
        if (begin > shard.mapping_size || size > shard.mapping_size - begin) {
            std::abort();
        }
        const uint8_t* bytes = tevrin::tensor_data(model, i);
        for (uint64_t b = 0; b < size; ++b) {
            sum = uint8_t(sum + bytes[b]);
        }
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = tevrin::fuzzing::write_scratch("source.gguf", data, size);
    try {
        tevrin::SourceModel model;
        model.open(path);
        volatile uint8_t sink = touch_tensors(model);
        (void)sink;
    } catch (const std::exception&) {
    }
    return 0;
}
