// Quantized runs end to end: a mix and type lines settle each tensor's type in
// the file, a type line that does not fit fails, matrix-only types need a matrix,
// and importance entries reach the quantizer per expert and follow stacked layers.
#include <gtest/gtest.h>

#include <cstdio>

#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"
#include "tests/support/imatrix_files.h"

namespace tevrin::testing {
namespace {

struct QuantRun : ::testing::Test {
    TempDir dir;
    std::string out = dir.file("out.gguf");

    FuseResult run(const std::vector<std::string>& sources, const std::string& recipe,
                   const std::string& matrix = "") {
        return fuse(sources, recipe, out, 2, nullptr, {}, FuseOptions{matrix, {}});
    }
    std::string type_of(const std::string& name) {
        GgufHandle g = read_gguf_header(out.c_str());
        return ggml_type_name(
            gguf_get_tensor_type(g.get(), gguf_find_tensor(g.get(), name.c_str())));
    }
};

// The quantizer's own bytes for F32 rows, with one importance list per `rows_per_list`.
std::vector<uint8_t> quantized(ggml_type type, const std::vector<float>& rows, int64_t row_len,
                               const std::vector<float>& lists, int64_t rows_per_list) {
    const int64_t n_rows = int64_t(rows.size()) / row_len;
    const size_t row_bytes = ggml_row_size(type, row_len);
    std::vector<uint8_t> bytes(size_t(n_rows) * row_bytes);
    for (int64_t r = 0; r < n_rows; r += rows_per_list) {
        ggml_quantize_chunk(type, rows.data() + r * row_len, bytes.data() + size_t(r) * row_bytes,
                            0, rows_per_list, row_len,
                            lists.empty() ? nullptr : lists.data() + (r / rows_per_list) * row_len);
    }
    return bytes;
}

TEST_F(QuantRun, MixThenTypeLinesLastMatchWins) {
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(3, 256, GGML_TYPE_F32, 1), a);
    const FuseResult r = run({a},
                             "out Q4_K_M\ntype blk.*.attn_q.weight q8_0\n"
                             "type blk.1.attn_q.weight f16\ntype *norm* q8_0\n"
                             "type token_embd.weight keep\n");
    ASSERT_TRUE(r.ok) << r.message;
    // clang-format off
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"blk.0.attn_q.weight", "q8_0"}, {"blk.1.attn_q.weight", "f16"},
        {"blk.2.attn_q.weight", "q8_0"}, {"blk.0.ffn_up.weight", "q4_K"},
        {"blk.0.attn_norm.weight", "f32"}, {"output.weight", "q6_K"},
        {"token_embd.weight", "f32"},
    };
    // clang-format on
    for (const auto& [name, type] : expected) {
        EXPECT_EQ(type_of(name), type) << name;
    }
    GgufHandle g = read_gguf_header(out.c_str());
    EXPECT_EQ(gguf_get_val_u32(g.get(), gguf_find_key(g.get(), "general.file_type")), 15u);
}

TEST_F(QuantRun, FailuresBeforeWriting) {
    const std::string a = dir.file("a.gguf"), b = dir.file("b.gguf");
    write_fixture(llama_fixture(2, 96, GGML_TYPE_F32, 1), a);
    write_fixture(llama_fixture(1, 256, GGML_TYPE_F32, 1), b);
    // Entries for everything but blk.0.ffn_up; one entry of the wrong length.
    std::vector<MatrixEntry> entries;
    for (const std::string name : {"token_embd.weight", "blk.0.attn_q.weight", "output.weight"}) {
        entries.push_back({name, std::vector<float>(256, 1.0f), {1}});
    }
    write_matrix_gguf(dir.file("m.gguf"), entries);
    entries.push_back({"blk.0.ffn_up.weight", std::vector<float>(255, 1.0f), {1}});
    write_matrix_binary(dir.file("short.dat"), entries);
    // clang-format off
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
        {a, "type blk.1.* q4_k", "", "type q4_K does not fit tensor blk.1.attn_q.weight (rows of 96)"},
        {b, "out iq2_xs", "", "type iq2_xs needs an importance matrix (--imatrix)"},
        {b, "type *ffn* iq1_m", "", "type iq1_m needs an importance matrix (--imatrix)"},
        {b, "out q2_k_s", "", "type q2_K needs an importance matrix (--imatrix)"},
        {b, "out iq2_xxs", dir.file("m.gguf"),
         "tensor blk.0.ffn_up.weight has no importance matrix entry, which type iq2_xxs needs"},
        {b, "out q4_k", dir.file("short.dat"),
         "importance matrix entry blk.0.ffn_up.weight holds 255 values, tensor "
         "blk.0.ffn_up.weight needs 256"},
        {b, "out q4_k", dir.file("none.dat"), "cannot read importance matrix " + dir.file("none.dat")},
    };
    // clang-format on
    for (const auto& [source, recipe, matrix, message] : cases) {
        write_file(out, "old");
        EXPECT_EQ(run({source}, recipe, matrix).message, message) << recipe;
        EXPECT_EQ(read_file(out), "old") << recipe;
    }
    // Plain words fall back as they always have; keep never asks for a matrix.
    EXPECT_TRUE(run({a}, "out q4_k").ok);
    EXPECT_EQ(type_of("blk.0.attn_q.weight"), "f16");
    EXPECT_TRUE(run({b}, "out iq2_xxs\ntype blk.0.ffn_up.weight q8_0", dir.file("m.gguf")).ok);
    EXPECT_EQ(type_of("blk.0.attn_q.weight"), "iq2_xxs");
}

// Each expert's rows are quantized with its own list; rows of a stacked layer with
// the list of the source layer they come from; a tensor without an entry without.
TEST_F(QuantRun, EntriesReachTheQuantizer) {
    FixtureModel m = fixture_model();
    gguf_set_val_str(m.meta.get(), "general.architecture", "llama");
    gguf_set_val_u32(m.meta.get(), "llama.block_count", 2);
    for (int layer = 0; layer < 2; ++layer) {
        const std::string p = "blk." + std::to_string(layer) + ".";
        add_tensor(m, p + "ffn_down_exps.weight", GGML_TYPE_F32, {256, 3, 4, 1}, 5 + layer);
        add_tensor(m, p + "attn_q.weight", GGML_TYPE_F32, {256, 2, 1, 1}, 7 + layer);
    }
    const std::string a = dir.file("a.gguf");
    write_fixture(m, a);
    std::vector<float> expert_lists(256 * 4), layer_lists[2] = {{}, {}};
    for (size_t i = 0; i < expert_lists.size(); ++i) {
        expert_lists[i] = float(1 + (i * 7919) % 97);
    }
    for (int layer = 0; layer < 2; ++layer) {
        layer_lists[layer].assign(256, 0.0f);
        for (size_t i = 0; i < 256; ++i) {
            layer_lists[layer][i] = float(1 + (i * (layer + 3)) % 13);
        }
    }
    write_matrix_binary(dir.file("m.dat"), {{"blk.0.ffn_down_exps.weight", expert_lists, {1}},
                                            {"blk.0.attn_q.weight", layer_lists[0], {1}},
                                            {"blk.1.attn_q.weight", layer_lists[1], {1}}});

    ASSERT_TRUE(run({a}, "out q4_k", dir.file("m.dat")).ok);
    const auto experts = read_tensor_floats(a, "blk.0.ffn_down_exps.weight");
    EXPECT_EQ(read_tensor_bytes(out, "blk.0.ffn_down_exps.weight"),
              quantized(GGML_TYPE_Q4_K, experts, 256, expert_lists, 3));
    EXPECT_EQ(
        read_tensor_bytes(out, "blk.1.ffn_down_exps.weight"),
        quantized(GGML_TYPE_Q4_K, read_tensor_floats(a, "blk.1.ffn_down_exps.weight"), 256, {}, 6));
    EXPECT_NE(read_tensor_bytes(out, "blk.0.ffn_down_exps.weight"),
              quantized(GGML_TYPE_Q4_K, experts, 256, {}, 12));

    ASSERT_TRUE(run({a}, "out q4_k\nstack 0:1 0:0 0:1", dir.file("m.dat")).ok);
    for (const auto& [output, source] : {std::pair<int, int>{0, 1}, {1, 0}, {2, 1}}) {
        EXPECT_EQ(
            read_tensor_bytes(out, "blk." + std::to_string(output) + ".attn_q.weight"),
            quantized(GGML_TYPE_Q4_K,
                      read_tensor_floats(a, "blk." + std::to_string(source) + ".attn_q.weight"),
                      256, layer_lists[source], 2))
            << output;
    }
}

}  // namespace
}  // namespace tevrin::testing
