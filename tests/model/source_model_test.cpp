#include "model/source_model.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

// Only regular files are opened: a FIFO without a writer would block the open.
TEST(SourceModel, OpensWholeRegularFilesOnly) {
    testing::TempDir dir;
    const std::string path = dir.file("m.gguf"), cut = dir.file("cut.gguf");
    testing::write_fixture(testing::llama_fixture(2, 32, GGML_TYPE_F32, 1, "qwen2"), path);
    SourceModel m;
    m.open(path);
    EXPECT_EQ(std::make_tuple(m.arch, m.n_layer, m.tensor_index.size()),
              std::make_tuple("qwen2", 2, 9u));
    // The last tensor ends exactly at the end of the file: one byte less is refused.
    const std::string whole = testing::read_file(path);
    EXPECT_EQ(m.shards[0].mapping_size, whole.size());
    testing::write_file(cut, whole.substr(0, whole.size() - 1));
    EXPECT_EQ(testing::source_open_error(cut), "tensor data beyond end of file: " + cut);
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const std::string& bad : {dir.file("missing"), dir.file("fifo"), dir.path}) {
        EXPECT_EQ(testing::source_open_error(bad), "not a valid GGUF: " + bad);
    }
}

// An architecture that is no string, and a block count that is no uint32 or does not fit
// an int32, count as absent.
TEST(SourceModel, KeysOfAnotherTypeOrRange) {
    testing::TempDir dir;
    for (const auto& [as_i32, count, n_layer] : {std::tuple<bool, uint32_t, int32_t>{true, 3, 0},
                                                 {false, 0x7fffffffu, 0x7fffffff},
                                                 {false, 0x80000000u, 0}}) {
        testing::FixtureModel odd = testing::fixture_model();
        gguf_context* g = odd.meta.get();
        gguf_set_val_u32(g, "general.architecture", 7);
        as_i32 ? gguf_set_val_i32(g, "unknown.block_count", int32_t(count))
               : gguf_set_val_u32(g, "unknown.block_count", count);
        testing::write_fixture(odd, dir.file("odd.gguf"));
        SourceModel m;
        m.open(dir.file("odd.gguf"));
        EXPECT_EQ(std::make_pair(m.arch, m.n_layer),
                  std::make_pair(std::string("unknown"), n_layer));
    }
}

}  // namespace
}  // namespace tevrin
