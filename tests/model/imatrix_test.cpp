// Importance-matrix files in both forms: the values handed to the quantizer
// (sums over counts, per expert matrix, 1 where a matrix saw no data), and the
// files that are refused.
#include "model/imatrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/support/gguf_builder.h"
#include "tests/support/imatrix_files.h"

namespace tevrin::testing {
namespace {

std::string read_error(const std::string& path) {
    try {
        read_importance_matrix(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

TEST(ImportanceMatrix, BothFormsGiveMeans) {
    TempDir dir;
    // Two experts of three columns: the first saw 4 rows (3.6 rounds to 4), the
    // second none. A dense entry of two columns saw 2.
    const std::vector<MatrixEntry> entries = {
        {"blk.0.ffn_down_exps.weight", {4, 8, 12, 5, 6, 7}, {3.6f, 0}},
        {"blk.0.attn_q.weight", {1, 3}, {2}},
    };
    write_matrix_gguf(dir.file("m.gguf"), entries);
    const ImportanceMatrix g = read_importance_matrix(dir.file("m.gguf"));
    EXPECT_EQ(g.entries.size(), 2u);
    EXPECT_EQ(g.entries.at("blk.0.ffn_down_exps.weight"), (std::vector<float>{1, 2, 3, 1, 1, 1}));
    EXPECT_EQ(g.entries.at("blk.0.attn_q.weight"), (std::vector<float>{0.5f, 1.5f}));

    // The binary form stores sums times calls; 0 calls leaves the values as stored.
    write_matrix_binary(dir.file("m.dat"), {{"a.weight", {2, 4}, {2}}, {"b.weight", {3, 9}, {0}}});
    const ImportanceMatrix b = read_importance_matrix(dir.file("m.dat"));
    EXPECT_EQ(b.entries.at("a.weight"), (std::vector<float>{1, 2}));
    EXPECT_EQ(b.entries.at("b.weight"), (std::vector<float>{3, 9}));

    // The trailing chunk count and data set name are optional.
    const std::string whole = read_file(dir.file("m.dat"));
    write_file(dir.file("short.dat"), whole.substr(0, whole.size() - 19));
    EXPECT_EQ(read_importance_matrix(dir.file("short.dat")).entries.size(), 2u);
}

TEST(ImportanceMatrix, RefusedFiles) {
    TempDir dir;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    write_matrix_binary(dir.file("cut.dat"), {{"a.weight", {2, 4}, {2}}});
    const std::string whole = read_file(dir.file("cut.dat"));
    write_file(dir.file("cut.dat"), whole.substr(0, 20));
    write_file(dir.file("empty.dat"), "");
    write_file(dir.file("zero.dat"), std::string(4, '\0'));
    write_matrix_binary(dir.file("nan.dat"), {{"a.weight", {1, nan}, {1}}});
    write_matrix_gguf(dir.file("nan.gguf"), {{"b.weight", {nan, 1}, {1}}});
    write_fixture(llama_fixture(1, 32, GGML_TYPE_F32, 1), dir.file("model.gguf"));
    FixtureModel lone = fixture_model();
    add_tensor(lone, "a.weight.in_sum2", GGML_TYPE_F32, {4, 1, 1, 1});
    write_fixture(lone, dir.file("lone.gguf"));
    FixtureModel half = fixture_model();
    add_tensor(half, "a.weight.in_sum2", GGML_TYPE_F16, {4, 1, 1, 1});
    add_tensor(half, "a.weight.counts", GGML_TYPE_F32, {1, 1, 1, 1});
    write_fixture(half, dir.file("half.gguf"));
    write_file(dir.file("bad.gguf"), "GGUF\3\0\0\0");

    for (const std::string name :
         {"cut.dat", "empty.dat", "zero.dat", "model.gguf", "lone.gguf", "half.gguf", "bad.gguf"}) {
        EXPECT_EQ(read_error(dir.file(name)), "not an importance matrix: " + dir.file(name));
    }
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("missing"), "cannot read importance matrix " + dir.file("missing")},
        {dir.path, "cannot read importance matrix " + dir.path},
        {dir.file("nan.dat"), "importance matrix entry a.weight is not finite"},
        {dir.file("nan.gguf"), "importance matrix entry b.weight is not finite"},
    };
    for (const auto& [path, message] : cases) {
        EXPECT_EQ(read_error(path), message) << path;
    }
}

}  // namespace
}  // namespace tevrin::testing
