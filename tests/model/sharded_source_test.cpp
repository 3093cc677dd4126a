// A model split into shards opens as one source from any of its shards, and every
// way a set of shards can fail to fit together is refused with the shard's name.
#include <gtest/gtest.h>

#include <filesystem>

#include "model/shard_names.h"
#include "model/source_model.h"
#include "tests/support/gguf_builder.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

const std::set<std::string> kSplitKeys = {kSplitNoKey, kSplitCountKey, kSplitTensorsKey};

struct ShardedSource : ::testing::Test {
    TempDir dir;
    std::string whole = dir.file("m.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(3, 64, GGML_TYPE_Q8_0, 1, "qwen2"), whole);  // 12 tensors
    }
};

TEST_F(ShardedSource, AnyShardOpensTheWholeModel) {
    for (const int64_t per_shard : {1, 5, 11}) {
        const std::string prefix = dir.file("cut" + std::to_string(per_shard));
        const auto paths = write_shards(whole, prefix, ShardCut{per_shard});
        for (const std::string& given : paths) {
            SourceModel m;
            m.open(given);
            EXPECT_EQ(m.path, given);
            EXPECT_EQ(m.shards.size(), paths.size());
            EXPECT_EQ(std::make_pair(m.arch, m.n_layer), std::make_pair(std::string("qwen2"), 3));
            EXPECT_EQ(tensor_fd(m, 11), m.shards.back().fd);
            expect_same_model(whole, given, kSplitKeys);
        }
    }
}

// A file whose split.count is 0 or 1 (merged, or cut into a single piece) stands alone.
TEST_F(ShardedSource, OneShardOrNoneStandsAlone) {
    for (const uint16_t count : {0, 1}) {
        FixtureModel model = llama_fixture(1, 32, GGML_TYPE_F16, 2);
        gguf_set_val_u16(model.meta.get(), kSplitCountKey, count);
        gguf_set_val_u16(model.meta.get(), kSplitNoKey, 0);
        write_fixture(model, dir.file("single.gguf"));
        SourceModel m;
        m.open(dir.file("single.gguf"));
        EXPECT_EQ(m.shards.size(), 1u);
        EXPECT_EQ(tensor_count(m), 6);
    }
}

TEST_F(ShardedSource, ShardsThatDoNotFitTogetherAreRefused) {
    const auto three = write_shards(whole, dir.file("m3"), ShardCut{5});
    const auto four = write_shards(whole, dir.file("m4"), ShardCut{3});
    const auto short_count = write_shards(whole, dir.file("short"), ShardCut{5, 11});
    const auto repeated = write_shards(whole, dir.file("rep"), ShardCut{5, 14, true});
    FixtureModel no_number = llama_fixture(1, 32, GGML_TYPE_F16, 3);
    gguf_set_val_u16(no_number.meta.get(), kSplitCountKey, 2);
    const std::string lone = dir.file("lone-00001-of-00002.gguf");
    write_fixture(no_number, lone);
    const std::string renamed = dir.file("renamed.gguf");
    std::filesystem::copy_file(three[0], renamed);

    const std::string other = dir.file("other-00002-of-00003.gguf");
    const struct {
        std::string given, damage_to, damage_from, message;
    } cases[] = {
        {three[0], three[1], "", "missing shard " + three[1]},
        {three[2], three[0], "", "missing shard " + three[0]},
        {three[0], three[1], four[1], "shard of another model: " + three[1]},   // split.count
        {three[0], three[1], three[2], "shard of another model: " + three[1]},  // split.no
        {three[0], three[2], "junk", "not a valid GGUF: " + three[2]},
        {short_count[1], "", "",
         "tensor count does not add up: " + short_count[0] +
             " promises 11 tensors, its 3 shards hold 12"},
        {repeated[0], "", "", "duplicate tensor blk.1.attn_norm.weight in shard " + repeated[1]},
        {lone, "", "", "shard without a valid split.no or split.tensors.count: " + lone},
        {renamed, "", "", "shard " + renamed + " is not named <prefix>-00001-of-00003.gguf"},
    };
    for (const auto& c : cases) {
        const std::string saved = c.damage_to.empty() ? "" : read_file(c.damage_to);
        if (!c.damage_to.empty()) {
            std::filesystem::remove(c.damage_to);
            if (c.damage_from == "junk") {
                write_file(c.damage_to, "GGUF and nothing more");
            } else if (!c.damage_from.empty()) {
                std::filesystem::copy_file(c.damage_from, c.damage_to);
            }
        }
        EXPECT_EQ(source_open_error(c.given), c.message);
        if (!c.damage_to.empty()) {
            write_file(c.damage_to, saved);
        }
    }
    // A shard set of the same count but a different total belongs to another model.
    write_shards(whole, dir.file("other"), ShardCut{5});
    const auto smaller = dir.file("small.gguf");
    write_fixture(llama_fixture(2, 64, GGML_TYPE_Q8_0, 1, "qwen2"), smaller);  // 9 tensors
    const auto small = write_shards(smaller, dir.file("small"), ShardCut{4});
    std::filesystem::remove(other);
    std::filesystem::copy_file(small[1], other);
    EXPECT_EQ(source_open_error(dir.file("other-00001-of-00003.gguf")),
              "shard of another model: " + other);
}

}  // namespace
}  // namespace tevrin::testing
