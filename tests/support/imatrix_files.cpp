#include "tests/support/imatrix_files.h"

#include <fstream>

#include "tests/support/gguf_builder.h"

namespace tevrin::testing {

void write_matrix_gguf(const std::string& path, const std::vector<MatrixEntry>& entries) {
    FixtureModel model = fixture_model();
    const char* datasets[] = {"fixture.txt"};
    gguf_set_val_str(model.meta.get(), "general.type", "imatrix");
    gguf_set_arr_str(model.meta.get(), "imatrix.datasets", datasets, 1);
    gguf_set_val_u32(model.meta.get(), "imatrix.chunk_count", 1);
    gguf_set_val_u32(model.meta.get(), "imatrix.chunk_size", 512);
    for (const MatrixEntry& e : entries) {
        const int64_t matrices = int64_t(e.counts.size());
        const int64_t columns = matrices > 0 ? int64_t(e.sums.size()) / matrices : 0;
        add_tensor(model, e.name + ".in_sum2", GGML_TYPE_F32, {columns, matrices, 1, 1}).values =
            e.sums;
        add_tensor(model, e.name + ".counts", GGML_TYPE_F32, {1, matrices, 1, 1}).values = e.counts;
    }
    write_fixture(model, path);
}

void write_matrix_binary(const std::string& path, const std::vector<MatrixEntry>& entries) {
    std::ofstream out(path, std::ios::binary);
    auto i32 = [&out](int32_t v) { out.write(reinterpret_cast<const char*>(&v), sizeof v); };
    i32(int32_t(entries.size()));
    for (const MatrixEntry& e : entries) {
        i32(int32_t(e.name.size()));
        out.write(e.name.data(), std::streamsize(e.name.size()));
        i32(e.counts.empty() ? 0 : int32_t(e.counts[0]));
        i32(int32_t(e.sums.size()));
        out.write(reinterpret_cast<const char*>(e.sums.data()),
                  std::streamsize(e.sums.size() * sizeof(float)));
    }
    const std::string dataset = "fixture.txt";
    i32(1);
    i32(int32_t(dataset.size()));
    out.write(dataset.data(), std::streamsize(dataset.size()));
}

}  // namespace tevrin::testing
