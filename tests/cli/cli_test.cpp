// The real executable as a user meets it: arguments, streams, statuses, files,
// shards.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <tuple>

#include "cli/progress_printer.h"
#include "model/inspect.h"
#include "recipe/random_recipe.h"
#include "tests/cli/cli_run.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

const std::string kUsage =
    "usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...\n";

struct CliTest : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a.gguf"), b = dir.file("b.gguf"), out = dir.file("out.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 1), a);
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 2), b);
    }
};

// Arguments alone, or an option with the value it refuses and what that value is.
TEST(Cli, UsageFailures) {
    const std::string t = "thread count", n = "tensor count";
    // clang-format off
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "", ""}, {"a.gguf -o", "", ""}, {"--inspect", "", ""}, {"--dry", "", ""},
        {"-o x.gguf", "", ""}, {"-o '' a", "", ""}, {"-t", "-1", t}, {"-t", "x", t},
        {"--threads", "2x", t}, {"-t", "1025", t}, {"-t", "", t},
        {"--split-max-size", "1.5G", "split size"}, {"--split-max-tensors", "0", n},
        {"--split-max-tensors", "2k", n}, {"--split-max-tensors", "99999999999999999999", n},
    };
    // clang-format on
    for (const auto& [option, value, what] : cases) {
        const std::string args = what.empty() ? option : option + " '" + value + "' -o x a";
        const CommandResult r = fuse_cli(args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.err, (what.empty() ? "" : "invalid " + what + " '" + value + "'\n") + kUsage)
            << args;
        EXPECT_EQ(r.out, "") << args;
    }
}

TEST_F(CliTest, InspectAndTensorsStopTheScanAndAlwaysSucceed) {
    CommandResult r = fuse_cli("--inspect " + a + " -o whatever --bogus");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, inspect_json(a, false) + "\n");
    r = fuse_cli("--tensors " + a + " -o x --bogus");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, inspect_json(a, true) + "\n");
    r = fuse_cli("--inspect " + dir.file("missing.gguf"));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "{\"ok\":false,\"error\":\"not a valid GGUF file\"}\n");
}

TEST_F(CliTest, DryPrintsTheSettledRecipeExactly) {
    write_file(dir.file("r.txt"), "from\r\nfile\n");
    const std::string r_txt = dir.file("r.txt"), two = a + " " + b;
    const std::pair<std::string, std::string> cases[] = {
        {"-e 'not a recipe' " + a, "not a recipe"},
        {"-e first -r " + r_txt + " x", "from\r\nfile\n"},  // the later of -r/-e wins
        {"-r " + r_txt + " -e second x", "second"},
        {"--random abc " + a, random_recipe(1, 2, 0, "q8_0")},  // no digits: seed 0
        {"--random -1 -e mine " + a, "mine"},                   // negative: no generation
        {"-e mine --random 7 --type q4_k " + two, random_recipe(2, 2, 7, "q4_k")},
        {"--random 7 --type q4_k -e mine " + two, random_recipe(2, 2, 7, "q4_k")},
        // A first source without a report: 16 layers.
        {"--random 5 " + dir.file("nope") + " " + a, random_recipe(2, 16, 5, "q8_0")},
    };
    for (const auto& [args, printed] : cases) {
        const CommandResult r = fuse_cli("--dry " + args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_EQ(r.out, printed) << args;
    }
}

TEST_F(CliTest, RunPrintsBannerProgressAndSummary) {
    CommandResult r = fuse_cli("--threads 0 -e 'default linear' -o " + out + " " + a + " " + b);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(
        r.out.starts_with("---- recipe ----\ndefault linear\n----------------\n"
                          "OK: ok\ntensors=9 params="))
        << r.out;
    EXPECT_PRED2(has, r.out, " layers=2 bytes=");
    EXPECT_PRED2(has, r.err, "\r100% Blending output.weight");
    EXPECT_TRUE(r.err.ends_with("\n"));

    // A failure before the output is opened leaves an existing file alone.
    write_file(out, "precious");
    r = fuse_cli("-e 'default blend' -o " + out + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_PRED2(has, r.out,
                 "FAILED: recipe line 1: unknown method 'blend' in: default blend\n"
                 "tensors=0 params=0 fallback=0 layers=0 bytes=0 time=");
    EXPECT_EQ(read_file(out), "precious");
}

// A split run writes shards; a shard given as a source opens the whole model, and
// --inspect of one shard reports that file alone.
TEST_F(CliTest, SplitRunAndShardedSource) {
    CommandResult r = fuse_cli("-e 'out f16' --split-max-tensors 4 -o " + out + " " + a);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_PRED2(has, r.out, "OK: ok\ntensors=9 ");
    EXPECT_FALSE(file_exists(out));
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

TEST(Examples, EveryExampleRecipeRunsOnSampleModels) {
    TempDir dir;
    std::string models[3];
    for (int i = 0; i < 3; ++i) {  // 6, 8 and 10 layers: deep enough for every example
        models[i] = dir.file("s" + std::to_string(i) + ".gguf");
        ASSERT_EQ(run_command(shell_quote(sample_exe()) + " --width 64 --layers " +
                              std::to_string(6 + 2 * i) + " --seed " + std::to_string(i + 1) +
                              " -o " + models[i])
                      .status,
                  0);
    }
    const auto sources = [&](int count) {
        std::string text;
        for (int i = 0; i < count; ++i) {
            text += " " + models[i % 3];
        }
        return text;
    };
    const std::string o = " -o " + dir.file("out.gguf");
    for (const auto& entry : std::filesystem::directory_iterator(TEVRIN_SOURCE_DIR "/examples")) {
        const std::string recipe = read_file(entry.path().string());
        const size_t at = recipe.find("# sources: ");
        ASSERT_NE(at, std::string::npos) << entry.path();
        const std::string args = "-r " + entry.path().string() + o;
        const CommandResult r = fuse_cli(args + sources(std::stoi(recipe.substr(at + 11))));
        EXPECT_EQ(r.status, 0) << entry.path() << "\n" << r.out;
    }
    // Generated recipes fuse too, whatever the number of sources.
    for (const int count : {1, 2, 3, 8}) {
        const CommandResult r =
            fuse_cli("--random " + std::to_string(count * 11) + o + sources(count));
        EXPECT_EQ(r.status, 0) << count << " sources\n" << r.out;
    }
}

TEST(ProgressPrinter, ShowsOnlyFiveStepChanges) {
    FILE* f = std::tmpfile();
    ProgressPrinter p{-1, f};
    for (float fr : {0.0f, 0.04f, 0.05f, 0.07f, 0.5f, 0.999f, 1.0f}) {
        print_progress(p, FuseProgress{fr, "Blending x"});
    }
    std::rewind(f);
    char buf[512] = {};
    const size_t n = std::fread(buf, 1, sizeof buf, f);
    std::fclose(f);
    const std::string pad(50, ' ');
    EXPECT_EQ(std::string(buf, n), "\r  5% Blending x" + pad + "\r 50% Blending x" + pad +
                                       "\r 99% Blending x" + pad + "\r100% Blending x" + pad);
}

}  // namespace
}  // namespace tevrin::testing
