// The shard options as a user meets them: values refused as usage failures, a
// split run's files and summary, a shard given as a source, and --inspect of one
// shard reporting that file alone.
#include <gtest/gtest.h>

#include "recipe/random_recipe.h"
#include "tests/support/gguf_builder.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

CommandResult fuse_cli(const std::string& args) {
    return run_command(shell_quote(fuse_exe()) + " " + args);
}

TEST(ShardOptions, RefusedValuesAreUsageFailures) {
    for (const std::string args :
         {"--split-max-size 0", "--split-max-size 5X", "--split-max-size ''",
          "--split-max-size 1.5G", "--split-max-tensors 0", "--split-max-tensors 2k",
          "--split-max-tensors -3", "--split-max-tensors 99999999999999999999"}) {
        const CommandResult r = fuse_cli(args + " -o out.gguf a.gguf");
        EXPECT_EQ(r.status, 1) << args;
        const std::string value = args.substr(args.find(' ') + 1);
        const std::string what = args.rfind("--split-max-size", 0) == 0 ? "invalid split size "
                                                                        : "invalid tensor count ";
        const std::string quoted = value == "''" ? "''" : "'" + value + "'";
        EXPECT_EQ(r.err.rfind(what + quoted + "\nusage: ", 0), 0u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST(ShardOptions, SplitRunAndShardedSource) {
    TempDir dir;
    const std::string a = dir.file("a.gguf");
    write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 1), a);  // 9 tensors
    CommandResult r =
        fuse_cli("-e 'out f16' --split-max-tensors 4 -o " + dir.file("out.gguf") + " " + a);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("OK: ok\ntensors=9 "), std::string::npos) << r.out;
    EXPECT_FALSE(file_exists(dir.file("out.gguf")));
    const std::string second = dir.file("out-00002-of-00003.gguf");
    for (const std::string& shard :
         {dir.file("out-00001-of-00003.gguf"), second, dir.file("out-00003-of-00003.gguf")}) {
        EXPECT_TRUE(file_exists(shard)) << shard;
    }
    r = fuse_cli("--inspect " + second);
    EXPECT_NE(r.out.find("\"n_tensors\":4,"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"arch\":\"unknown\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("[\"split.no\",\"1\"],[\"split.count\",\"3\"]"), std::string::npos)
        << r.out;

    // A generated recipe reads the depth from the first shard's keys.
    r = fuse_cli("--dry --random 5 " + second);
    EXPECT_EQ(r.out, random_recipe(1, 2, 5, "q8_0"));

    // The second shard as a base: the whole model, and an unsplit output.
    r = fuse_cli("-e 'out f16' --split-max-size 1G -o " + dir.file("again.gguf") + " " + second);
    ASSERT_EQ(r.status, 0) << r.out;
    expect_same_model(dir.file("again-00001-of-00001.gguf"), dir.file("out-00001-of-00003.gguf"),
                      {"split.count", "split.no", "split.tensors.count", "tevrin.sources"});
}

}  // namespace
}  // namespace tevrin::testing
