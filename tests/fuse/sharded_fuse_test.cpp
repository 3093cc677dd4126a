// Sharded models in and out of whole runs: sharded sources fuse exactly like the
// same models unsplit, and a split output holds exactly the unsplit output's
// tensors, readable shard by shard by ggml and as a whole by the project's reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>

#include "fuse/fuse.h"
#include "fuse/output_parts.h"
#include "model/shard_names.h"
#include "tests/support/gguf_builder.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

const std::set<std::string> kSplitKeys = {kSplitNoKey, kSplitCountKey, kSplitTensorsKey};

struct ShardedFuse : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a.gguf"), b = dir.file("b.gguf"), out = dir.file("out.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(3, 64, GGML_TYPE_F16, 1), a);   // 12 tensors
        write_fixture(llama_fixture(4, 64, GGML_TYPE_Q8_0, 2), b);  // 15 tensors
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

FuseOptions split(const SplitLimits& limits) {
    FuseOptions options;
    options.split = limits;
    return options;
}

std::string sources_key(const std::string& path) {
    GgufHandle g = read_gguf_header(path.c_str());
    const int64_t id = gguf_find_key(g.get(), "tevrin.sources");
    return id < 0 ? "" : gguf_get_arr_str(g.get(), id, 0);
}

TEST_F(ShardedFuse, ShardedSourcesFuseLikeTheUnsplitModels) {
    const std::string ref = dir.file("ref.gguf");
    for (const int64_t per_shard : {1, 5}) {
        const std::string tag = std::to_string(per_shard);
        const auto a_shards = write_shards(a, dir.file("a" + tag), ShardCut{per_shard});
        const auto b_shards = write_shards(b, dir.file("b" + tag), ShardCut{per_shard + 1});
        for (const std::string recipe :
             {"default slerp 0.3", "out keep\ndefault pick 1", "out f16\ndefault pick 0",
              "stack 0:0-2 1:1-3\ndefault ties 0.5"}) {
            SCOPED_TRACE(recipe + " / " + tag);
            ASSERT_TRUE(fuse({a, b}, recipe, ref, 2, nullptr, {}).ok);
            for (const auto& [base, donor] : {std::pair{a_shards[1], b},
                                              {a, b_shards.back()},
                                              {a_shards.back(), b_shards[0]}}) {
                const FuseResult r = fuse({base, donor}, recipe, out, 2, nullptr, {});
                ASSERT_TRUE(r.ok) << r.message;
                // No split.* key of the base reaches the unsplit output.
                expect_same_model(ref, out, {"tevrin.sources"});
                EXPECT_EQ(sources_key(out), std::filesystem::path(base).filename().string());
            }
        }
    }
}

// Every shard read by ggml on its own: a loader-ready header and the tensor data of
// the unsplit output, in plan order.
void expect_loadable_shards(const std::vector<std::string>& shards, const std::string& whole) {
    int64_t next = 0;
    GgufHandle ref = read_gguf_header(whole.c_str());
    for (size_t no = 0; no < shards.size(); ++no) {
        ggml_context* data = nullptr;
        GgufHandle g(gguf_init_from_file(shards[no].c_str(), {false, &data}));
        GgmlHandle owner(data);
        ASSERT_TRUE(g) << shards[no];
        auto u16 = [&](const char* key) {
            const int64_t id = gguf_find_key(g.get(), key);
            return id >= 0 && gguf_get_kv_type(g.get(), id) == GGUF_TYPE_UINT16
                       ? int64_t(gguf_get_val_u16(g.get(), id))
                       : -1;
        };
        EXPECT_EQ(u16(kSplitNoKey), int64_t(no));
        EXPECT_EQ(u16(kSplitCountKey), int64_t(shards.size()));
        const int64_t total = gguf_find_key(g.get(), kSplitTensorsKey);
        ASSERT_GE(total, 0);
        EXPECT_EQ(gguf_get_val_i32(g.get(), total), gguf_get_n_tensors(ref.get()));
        const int64_t own_keys = 3 + (gguf_find_key(ref.get(), "general.alignment") >= 0);
        EXPECT_EQ(gguf_get_n_kv(g.get()), no == 0 ? gguf_get_n_kv(ref.get()) + 3 : own_keys);
        EXPECT_EQ(gguf_get_alignment(g.get()), gguf_get_alignment(ref.get()));
        for (int64_t i = 0; i < gguf_get_n_tensors(g.get()); ++i, ++next) {
            const std::string name = gguf_get_tensor_name(g.get(), i);
            ASSERT_EQ(name, gguf_get_tensor_name(ref.get(), next));
            const ggml_tensor* t = ggml_get_tensor(data, name.c_str());
            const auto bytes = read_tensor_bytes(whole, name);
            ASSERT_EQ(ggml_nbytes(t), bytes.size());
            EXPECT_EQ(std::memcmp(t->data, bytes.data(), bytes.size()), 0) << name;
        }
    }
    EXPECT_EQ(next, gguf_get_n_tensors(ref.get()));
}

TEST_F(ShardedFuse, SplitOutputHoldsTheUnsplitOutput) {
    const std::string ref = dir.file("ref.gguf"), recipe = "out q8_0\ndefault dare 0.3";
    ASSERT_TRUE(fuse({a, b}, recipe, ref, 2, nullptr, {}).ok);
    const uint64_t matrix = 64 * 64 / 32 * 34;  // one 64 x 64 q8_0 tensor
    const struct {
        SplitLimits limits;
        size_t shards;
    } cases[] = {{{0, 1}, 12}, {{0, 5}, 3},       {{0, 12}, 1},
                 {{1, 0}, 12}, {{matrix, 0}, 10}, {{3 * matrix, 3}, 5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.limits.max_bytes) + " " +
                     std::to_string(c.limits.max_tensors));
        const FuseResult r = fuse({a, b}, recipe, out, 3, nullptr, {}, split(c.limits));
        ASSERT_TRUE(r.ok) << r.message;
        std::vector<std::string> shards;
        uint64_t bytes = 0;
        for (size_t no = 0; no < c.shards; ++no) {
            shards.push_back(shard_path(dir.file("out"), int32_t(no), int32_t(c.shards)));
            bytes += std::filesystem::file_size(shards.back());
        }
        EXPECT_EQ(r.output_path, shards[0]);
        EXPECT_EQ(r.bytes, bytes);
        EXPECT_EQ(r.tensors, 12);
        expect_same_model(ref, shards[0], kSplitKeys);
        expect_same_model(ref, shards.back(), kSplitKeys);
        expect_loadable_shards(shards, ref);
        // Bytes do not depend on the thread count.
        const std::string first = read_file(shards[0]);
        ASSERT_TRUE(fuse({a, b}, recipe, out, 1, nullptr, {}, split(c.limits)).ok);
        EXPECT_TRUE(read_file(shards[0]) == first);
        for (const auto& shard : shards) {
            std::filesystem::remove(shard);
        }
    }
}

// A base laid out at 64 bytes, read from shards and written as shards.
TEST_F(ShardedFuse, TheBaseAlignmentHoldsInEveryShard) {
    FixtureModel wide = llama_fixture(2, 64, GGML_TYPE_F16, 3);
    FixtureModel aligned = fixture_model(64);
    gguf_set_kv(aligned.meta.get(), wide.meta.get());
    aligned.tensors = wide.tensors;
    const std::string base = dir.file("wide.gguf"), ref = dir.file("ref.gguf");
    write_fixture(aligned, base);
    const auto shards = write_shards(base, dir.file("wide"), ShardCut{4});
    ASSERT_TRUE(fuse({base, a}, "out q8_0", ref, 2, nullptr, {}).ok);
    const FuseResult r = fuse({shards[1], a}, "out q8_0", out, 2, nullptr, {}, split({0, 2}));
    ASSERT_TRUE(r.ok) << r.message;
    std::vector<std::string> written;
    for (int32_t no = 0; no < 5; ++no) {
        written.push_back(shard_path(dir.file("out"), no, 5));
    }
    expect_same_model(ref, written[0],
                      {"tevrin.sources", kSplitNoKey, kSplitCountKey, kSplitTensorsKey});
    expect_loadable_shards(written, ref);
}

TEST_F(ShardedFuse, FailedSplitRunLeavesNoShard) {
    const auto before = files();
    std::atomic<bool> cancel{false};
    int copied = 0;
    const ProgressFn stop_at_seventh = [&](const FuseProgress& p) {
        if (p.label.rfind("Blending ", 0) == 0 && ++copied == 7) {
            cancel = true;  // shards 1 to 3 complete, the fourth open
            // Complete shards wait under hidden names until all are complete.
            EXPECT_EQ(files().size(), before.size() + 4);
            EXPECT_FALSE(file_exists(shard_path(dir.file("out"), 0, 6)));
        }
    };
    const FuseResult r = fuse({a}, "out f16", out, 2, &cancel, stop_at_seventh, split({0, 2}));
    EXPECT_EQ(r.message, "cancelled");
    EXPECT_EQ(r.tensors, 7);
    EXPECT_EQ(files(), before);

    // A later shard cannot take its name after the first did: the first goes too.
    const std::string second = shard_path(dir.file("out"), 1, 6);
    const ProgressFn block_second = [&](const FuseProgress& p) {
        if (p.label == "Corked") {
            std::filesystem::create_directory(second);
        }
    };
    const FuseResult late = fuse({a}, "out f16", out, 2, nullptr, block_second, split({0, 2}));
    EXPECT_EQ(late.message, "cannot write " + second);
    std::filesystem::remove(second);
    EXPECT_EQ(files(), before);
}

TEST_F(ShardedFuse, OutputOverAnySourceShardIsRefused) {
    const auto a_shards = write_shards(a, dir.file("a"), ShardCut{5});
    const std::string before = read_file(a_shards[2]);
    const struct {
        std::string output;
        SplitLimits limits;
    } cases[] = {{a_shards[2], {}}, {a, {0, 5}}};  // a.gguf splits into a-0000k-of-00003.gguf
    for (const auto& c : cases) {
        const FuseResult r = fuse({a_shards[0]}, "", c.output, 2, nullptr, {}, split(c.limits));
        EXPECT_EQ(r.message,
                  "output would overwrite source " + a_shards[c.limits.max_tensors ? 0 : 2]);
        EXPECT_EQ(read_file(a_shards[2]), before);
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
    const struct {
        std::string text;
        std::optional<uint64_t> bytes;
    } sizes[] = {{"500M", 500000000},
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
    for (const auto& s : sizes) {
        EXPECT_EQ(parse_byte_size(s.text), s.bytes) << s.text;
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
