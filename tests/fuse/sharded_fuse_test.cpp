// Sharded models in and out of whole runs: sharded sources fuse exactly like the
// same models unsplit, and a split output holds exactly the unsplit output's
// tensors, readable shard by shard by ggml and as a whole by the project's reader.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "fuse/output_parts.h"
#include "model/shard_names.h"
#include "tests/fuse/fuse_fixtures.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

struct ShardedFuse : ::testing::Test, FuseDir {
    std::string a = llama("a.gguf", 3, 1);                  // 12 tensors
    std::string b = llama("b.gguf", 4, 2, GGML_TYPE_Q8_0);  // 15 tensors
};

// Every shard read by ggml on its own: its split keys, only the first with the
// output's keys, the output's alignment, and the unsplit output's tensors in order.
void expect_loadable_shards(const std::vector<std::string>& shards, const std::string& whole) {
    GgufHandle ref = read_gguf_header(whole.c_str());
    const int64_t n_kv = gguf_get_n_kv(ref.get()), n_tensors = gguf_get_n_tensors(ref.get());
    const int64_t own_keys = 3 + (gguf_find_key(ref.get(), "general.alignment") >= 0);
    int64_t next = 0;
    for (size_t no = 0; no < shards.size(); ++no) {
        ggml_context* data = nullptr;
        GgufHandle owned(gguf_init_from_file(shards[no].c_str(), {false, &data}));
        GgmlHandle owner(data);
        const gguf_context* g = owned.get();
        ASSERT_TRUE(g) << shards[no];
        EXPECT_EQ(gguf_get_val_u16(g, gguf_find_key(g, kSplitNoKey)), no);
        EXPECT_EQ(gguf_get_val_u16(g, gguf_find_key(g, kSplitCountKey)), shards.size());
        EXPECT_EQ(gguf_get_val_i32(g, gguf_find_key(g, kSplitTensorsKey)), n_tensors);
        EXPECT_EQ(gguf_get_n_kv(g), no == 0 ? n_kv + 3 : own_keys);
        EXPECT_EQ(gguf_get_alignment(g), gguf_get_alignment(ref.get()));
        for (int64_t i = 0; i < gguf_get_n_tensors(g); ++i, ++next) {
            const char* name = gguf_get_tensor_name(g, i);
            ASSERT_STREQ(name, gguf_get_tensor_name(ref.get(), next));
            const auto* t = ggml_get_tensor(data, name);
            const auto* bytes = static_cast<const uint8_t*>(t->data);
            EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + ggml_nbytes(t)),
                      read_tensor_bytes(whole, name));
        }
    }
    EXPECT_EQ(next, n_tensors);
}

// Sharded sources and split outputs against the unsplit run of the unsplit sources:
// the same keys (split.* only in shards) and tensors, a split output also readable
// shard by shard. A base laid out at 64 bytes keeps its alignment in every shard.
TEST_F(ShardedFuse, ShardsInAndOutHoldTheUnsplitRun) {
    const auto a1 = write_shards(a, dir.file("a1"), ShardCut{1});  // 12 shards
    const auto a5 = write_shards(a, dir.file("a5"), ShardCut{5});  // 3
    const auto b2 = write_shards(b, dir.file("b2"), ShardCut{2});  // 8
    const auto b6 = write_shards(b, dir.file("b6"), ShardCut{6});  // 3
    FixtureModel wide = llama_fixture(2, 64, GGML_TYPE_F16, 3), aligned = fixture_model(64);
    gguf_set_kv(aligned.meta.get(), wide.meta.get());
    aligned.tensors = wide.tensors;
    const std::string a64 = write("a64.gguf", aligned);
    const std::string a64_shard = write_shards(a64, dir.file("a64"), ShardCut{4})[1];
    const std::string slerp = "default slerp 0.3", keep = "out keep\ndefault pick 1",
                      f16 = "out f16\ndefault pick 0",
                      stack = "stack 0:0-2 1:1-3\ndefault ties 0.5",
                      dare = "out q8_0\ndefault dare 0.3", ref = dir.file("ref.gguf");
    const uint64_t matrix = 64 * 64 / 32 * 34;  // one 64 x 64 q8_0 tensor
    const struct {
        std::string recipe;
        std::vector<std::string> sources;
        SplitLimits limits = {};
        size_t shards = 0;  // 0: one unsplit file
    } cases[] = {
        {slerp, {a1[1], b}},
        {slerp, {a5.back(), b6[0]}},
        {keep, {a, b2.back()}},
        {keep, {a1.back(), b6[1]}},
        {f16, {a5[1], b}},
        {f16, {a1[0], b2[3]}},
        {stack, {a1.back(), b2[0]}},
        {stack, {a, b6.back()}},
        {dare, {a, b}, {0, 1}, 12},
        {dare, {a5[2], b}, {0, 5}, 3},
        {dare, {a, b}, {0, 12}, 1},
        {dare, {a, b2[1]}, {1, 0}, 12},
        {dare, {a, b}, {matrix, 0}, 10},
        {dare, {a1[3], b6[2]}, {3 * matrix, 3}, 5},
        {dare, {a64_shard, a}, {0, 2}, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.recipe + " from " + c.sources[0] + ", " + c.sources[1]);
        const bool wide_base = c.sources[0] == a64_shard;
        ASSERT_TRUE(
            fuse({wide_base ? a64 : a, wide_base ? a : b}, c.recipe, ref, 2, nullptr, {}).ok);
        const FuseResult r = run(c.sources, c.recipe, 3, {"", c.limits});
        ASSERT_TRUE(r.ok) << r.message;
        if (c.shards == 0) {  // no split.* key of a sharded base reaches the output
            expect_same_model(ref, out, {"tevrin.sources"});
            GgufHandle g = read_gguf_header(out.c_str());
            EXPECT_STREQ(gguf_get_arr_str(g.get(), gguf_find_key(g.get(), "tevrin.sources"), 0),
                         std::filesystem::path(c.sources[0]).filename().c_str());
            continue;
        }
        std::vector<std::string> shards;
        uint64_t bytes = 0;
        for (size_t no = 0; no < c.shards; ++no) {
            shards.push_back(shard_path(dir.file("out"), int32_t(no), int32_t(c.shards)));
            bytes += std::filesystem::file_size(shards.back());
        }
        EXPECT_EQ(r.output_path, shards[0]);
        EXPECT_EQ(r.bytes, bytes);
        EXPECT_EQ(r.tensors, wide_base ? 9 : 12);
        const std::set<std::string> ignored = {kSplitNoKey, kSplitCountKey, kSplitTensorsKey,
                                               "tevrin.sources"};
        expect_same_model(ref, shards[0], ignored);
        expect_same_model(ref, shards.back(), ignored);
        expect_loadable_shards(shards, ref);
        for (const auto& shard : shards) {
            std::filesystem::remove(shard);
        }
    }
}

TEST(ShardLayout, ShardsCloseBeforeTheTensorThatWouldPassALimit) {
    const struct {
        std::vector<uint64_t> sizes;
        SplitLimits limits;
        std::vector<size_t> starts;
    } cases[] = {
        {{10, 10, 10, 10}, {20, 0}, {0, 2}},
        {{10, 10, 10, 10}, {19, 0}, {0, 1, 2, 3}},
        {{5, 50, 5, 5, 5}, {20, 0}, {0, 1, 2}},  // the large tensor gets a shard of its own
        {{50, 50}, {20, 0}, {0, 1}},
        {{0, 0, 10, 0, 1}, {10, 0}, {0, 4}},
        {{1, 1, 1, 1, 1}, {0, 2}, {0, 2, 4}},
        {{1, 1, 1, 1, 1}, {3, 2}, {0, 2, 4}},
        {{2, 2, 2, 2, 2}, {5, 3}, {0, 2, 4}},
        {{}, {1, 1}, {0}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(shard_starts(c.sizes, c.limits), c.starts);
    }
}

TEST(ShardLayout, SizesAndNames) {
    const std::pair<std::string, std::optional<uint64_t>> sizes[] = {
        {"500M", 500000000},
        {"4G", 4000000000},
        {"4g", 4000000000},
        {"12345", 12345},
        {"2k", 2000},
        {"0", std::nullopt},
        {"0M", std::nullopt},
        {"", std::nullopt},
        {"M", std::nullopt},
        {"4GB", std::nullopt},
        {"-4G", std::nullopt},
        {"1.5G", std::nullopt},
        {"18446744073709551615", UINT64_MAX},
        {"18446744073709551616", std::nullopt},
        {"18446744073709552G", std::nullopt}};
    for (const auto& [text, bytes] : sizes) {
        EXPECT_EQ(parse_byte_size(text), bytes) << text;
    }
    EXPECT_EQ(split_output_prefix("dir/out.gguf"), "dir/out");
    EXPECT_EQ(split_output_prefix("dir/out"), "dir/out");
    EXPECT_EQ(split_output_prefix(".gguf"), ".gguf");
    EXPECT_EQ(shard_path("dir/out", 1, 3), "dir/out-00002-of-00003.gguf");
    EXPECT_EQ(shard_prefix("dir/out-00002-of-00003.gguf", 1, 3), "dir/out");
    EXPECT_EQ(shard_prefix("dir/out-00002-of-00003.gguf", 0, 3), std::nullopt);
    EXPECT_EQ(shard_prefix("-00001-of-00001.gguf", 0, 1), std::nullopt);
}

}  // namespace
}  // namespace tevrin::testing
