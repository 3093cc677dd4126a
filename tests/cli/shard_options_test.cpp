// The shard options as a user meets them: a split run's files and summary, a shard
// given as a source, and --inspect of one shard reporting that file alone.
#include <gtest/gtest.h>

#include "recipe/random_recipe.h"
#include "tests/cli/cli_run.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

TEST(ShardOptions, SplitRunAndShardedSource) {
    TempDir dir;
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 1), a);  // 9 tensors
    CommandResult r =
        fuse_cli("-e 'out f16' --split-max-tensors 4 -o " + dir.file("out.gguf") + " " + a);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_PRED2(has, r.out, "OK: ok\ntensors=9 ");
    EXPECT_FALSE(file_exists(dir.file("out.gguf")));
    const std::string second = dir.file("out-00002-of-00003.gguf");
    for (const std::string& shard :
         {dir.file("out-00001-of-00003.gguf"), second, dir.file("out-00003-of-00003.gguf")}) {
        EXPECT_TRUE(file_exists(shard)) << shard;
    }
    r = fuse_cli("--inspect " + second);
    EXPECT_PRED2(has, r.out, "\"n_tensors\":4,");
    EXPECT_PRED2(has, r.out, "\"arch\":\"unknown\"");
    EXPECT_PRED2(has, r.out, "[\"split.no\",\"1\"],[\"split.count\",\"3\"]");

    // A generated recipe reads the depth from the first shard's keys.
    r = fuse_cli("--dry --random 5 " + second + " " + a);
    EXPECT_EQ(r.out, random_recipe(2, 2, 5, "q8_0"));

    // The second shard as a base: the whole model, and an unsplit output.
    r = fuse_cli("-e 'out f16' --split-max-size 1G -o " + dir.file("again.gguf") + " " + second);
    ASSERT_EQ(r.status, 0) << r.out;
    expect_same_model(dir.file("again-00001-of-00001.gguf"), dir.file("out-00001-of-00003.gguf"),
                      {"split.count", "split.no", "split.tensors.count", "tevrin.sources"});
}

}  // namespace
}  // namespace tevrin::testing
