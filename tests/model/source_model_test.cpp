#include "model/source_model.h"

#include <gtest/gtest.h>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

std::string open_error(const std::string& path) {
    SourceModel m;
    try {
        m.open(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

TEST(SourceModel, OpensWholeFilesOnly) {
    testing::TempDir dir;
    const std::string path = dir.file("m.gguf"), cut = dir.file("cut.gguf");
    testing::write_fixture(testing::llama_fixture(2, 32, GGML_TYPE_F32, 1, "qwen2"), path);
    SourceModel m;
    m.open(path);
    EXPECT_EQ(m.arch, "qwen2");
    EXPECT_EQ(m.n_layer, 2);
    ASSERT_EQ(m.tensor_index.size(), 9u);
    EXPECT_EQ(m.tensor_index.at("output.weight"), 8);
    // The last tensor ends exactly at the end of the file: one byte less is refused.
    const std::string whole = testing::read_file(path);
    EXPECT_EQ(m.mapping_size, whole.size());
    testing::write_file(cut, whole.substr(0, whole.size() - 1));
    EXPECT_EQ(open_error(cut), "tensor data beyond end of file: " + cut);
    EXPECT_EQ(open_error(dir.file("missing")), "not a valid GGUF: " + dir.file("missing"));
}

// An architecture that is no string and a block count that is no uint32 count as absent.
TEST(SourceModel, KeysOfAnotherType) {
    testing::TempDir dir;
    testing::FixtureModel odd = testing::fixture_model();
    gguf_set_val_u32(odd.meta.get(), "general.architecture", 7);
    gguf_set_val_i32(odd.meta.get(), "unknown.block_count", 3);
    testing::write_fixture(odd, dir.file("odd.gguf"));
    SourceModel m;
    m.open(dir.file("odd.gguf"));
    EXPECT_EQ(m.arch, "unknown");
    EXPECT_EQ(m.n_layer, 0);
}

}  // namespace
}  // namespace tevrin
