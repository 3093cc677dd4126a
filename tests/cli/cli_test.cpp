// The real executable as a user meets it: arguments, streams, statuses, files.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "cli/progress_printer.h"
#include "recipe/random_recipe.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

const std::string kUsage =
    "usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...\n";

CommandResult fuse_cli(const std::string& args) {
    return run_command(shell_quote(fuse_exe()) + " " + args);
}

struct CliTest : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a.gguf"), b = dir.file("b.gguf"), out = dir.file("out.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 1), a);
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 2), b);
    }
};

TEST_F(CliTest, UsageFailures) {
    for (const std::string args : {"", "a.gguf -o", "--inspect", "--dry", "-o x.gguf", "-o '' a"}) {
        const CommandResult r = fuse_cli(args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.err, kUsage) << args;
        EXPECT_EQ(r.out, "") << args;
    }
}

TEST_F(CliTest, InspectStopsTheScanAndAlwaysSucceeds) {
    CommandResult r = fuse_cli("--inspect " + a + " -o whatever --bogus");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("{\"ok\":true", 0), 0u);
    r = fuse_cli("--inspect " + dir.file("missing.gguf"));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "{\"ok\":false,\"error\":\"not a valid GGUF file\"}\n");
}

TEST_F(CliTest, DryPrintsTheSettledRecipeExactly) {
    write_file(dir.file("r.txt"), "from\r\nfile\n");
    const std::string r_txt = dir.file("r.txt"), two = a + " " + b;
    const struct {
        std::string args, printed;
    } cases[] = {
        {"-e 'not a recipe' " + a, "not a recipe"},
        {"-e first -r " + r_txt + " x", "from\r\nfile\n"},  // the later of -r/-e wins
        {"-r " + r_txt + " -e second x", "second"},
        {"--random abc " + a, random_recipe(1, 2, 0, "q8_0")},  // no digits: seed 0
        {"--random -1 -e mine " + a, "mine"},                   // negative: no generation
        {"-e mine --random 7 --type q4_k " + two, random_recipe(2, 2, 7, "q4_k")},
        {"--random 7 --type q4_k -e mine " + two, random_recipe(2, 2, 7, "q4_k")},
        {"--random 5 " + dir.file("nope"), random_recipe(1, 16, 5, "q8_0")},  // no report: 16
    };
    for (const auto& c : cases) {
        const CommandResult r = fuse_cli("--dry " + c.args);
        EXPECT_EQ(r.status, 0) << c.args;
        EXPECT_EQ(r.out, c.printed) << c.args;
    }
}

TEST_F(CliTest, RunPrintsBannerProgressAndSummary) {
    CommandResult r = fuse_cli("-e 'default linear' -o " + out + " " + a + " " + b);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("---- recipe ----\ndefault linear\n----------------\n"
                          "OK: ok\ntensors=9 params=",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find(" layers=2 bytes="), std::string::npos);
    EXPECT_NE(r.err.find("\r100% Blending output.weight"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.back(), '\n');

    // An unreadable recipe file is an empty recipe: the defaults apply.
    r = fuse_cli("-r " + dir.file("none.txt") + " -o " + out + " " + a);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("---- recipe ----\n\n----------------\nOK: ok\n", 0), 0u) << r.out;
}

TEST_F(CliTest, FailedRunsReportAndLeaveNoFile) {
    write_file(out, "precious");
    CommandResult r = fuse_cli("-e 'default blend' -o " + out + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: recipe line 1: unknown method 'blend' in: default blend\n"
                         "tensors=0 params=0 fallback=0 layers=0 bytes=0 time="),
              std::string::npos)
        << r.out;
    EXPECT_EQ(read_file(out), "precious");  // failed before the output was opened
    r = fuse_cli("-e 'stack 0:0-2000000000' -o " + out + " " + a);  // refused at once
    EXPECT_NE(r.out.find("FAILED: recipe line 1: stack too long (at most 65536 layers)\n"),
              std::string::npos);
}

TEST_F(CliTest, SpecialFilesNeitherHangNorGetRemoved) {
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(run_command("mkfifo " + fifo).status, 0);
    // `timeout` turns a hang into status 124 instead of a stuck test.
    const std::string exe = "timeout 60 " + shell_quote(fuse_exe());
    CommandResult r = run_command(exe + " --inspect " + fifo);
    EXPECT_EQ(r.out, "{\"ok\":false,\"error\":\"not a valid GGUF file\"}\n");
    for (const std::string& source : {fifo, dir.path}) {
        r = run_command(exe + " -o " + out + " " + a + " " + source);
        EXPECT_EQ(r.status, 2) << source;
        EXPECT_NE(r.out.find("FAILED: not a valid GGUF: " + source + "\n"), std::string::npos);
    }
    // An output FIFO whose reader quits early: a write error, not SIGPIPE, and the
    // FIFO stays where it was.
    write_fixture(llama_fixture(2, 256, GGML_TYPE_F32, 1), a);
    r = run_command("(head -c 100 " + fifo + " >/dev/null &) && " + exe + " -e 'out f32' -o " +
                    fifo + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: write error (disk full?)\n"), std::string::npos) << r.out;
    EXPECT_TRUE(file_exists(fifo));
}

// A source truncated under the mapping raises SIGBUS at the next read; the run
// ends as a failed one. The signal is sent by hand once writing has started, as
// a truncation cannot be timed; the long stack makes the run last long enough.
TEST_F(CliTest, BusErrorEndsTheRunAsAFailure) {
    write_fixture(llama_fixture(4, 256, GGML_TYPE_F32, 1), a);
    std::string stack = "out q4_k\nstack";
    for (int i = 0; i < 400; ++i) {
        stack += " 0:0-3";
    }
    write_file(dir.file("r.txt"), stack);
    const CommandResult r = run_command(shell_quote(fuse_exe()) + " -r " + dir.file("r.txt") +
                                        " -o " + out + " " + a + " & pid=$!; while [ ! -s " +
                                        dir.path + "/.out.gguf.tevrin-$pid.tmp ]; do sleep 0.01; " +
                                        "done; kill -BUS $pid; wait $pid");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("\nFAILED: source data unreadable (a source file cut short during the "
                         "run?)\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(unfinished_outputs(dir.path), 0);
    EXPECT_FALSE(file_exists(out));
}

TEST(Examples, EveryExampleRecipeRunsOnSampleModels) {
    TempDir dir;
    std::string models;
    for (int i = 0; i < 3; ++i) {  // 6, 8 and 10 layers: deep enough for every example
        const std::string path = dir.file("s" + std::to_string(i) + ".gguf");
        ASSERT_EQ(run_command(shell_quote(sample_exe()) + " --width 64 --layers " +
                              std::to_string(6 + 2 * i) + " --seed " + std::to_string(i + 1) +
                              " -o " + path)
                      .status,
                  0);
        models += " " + path;
    }
    for (const auto& entry : std::filesystem::directory_iterator(TEVRIN_SOURCE_DIR "/examples")) {
        const std::string recipe = read_file(entry.path().string());
        const size_t at = recipe.find("# sources: ");
        ASSERT_NE(at, std::string::npos) << entry.path();
        const int count = std::stoi(recipe.substr(at + 11));
        std::string sources;
        for (int i = 0; i < count; ++i) {
            sources += " " + dir.file("s" + std::to_string(i) + ".gguf");
        }
        const CommandResult r =
            fuse_cli("-r " + entry.path().string() + " -o " + dir.file("out.gguf") + sources);
        EXPECT_EQ(r.status, 0) << entry.path() << "\n" << r.out;
    }
    // Generated recipes fuse too, whatever the number of sources.
    for (const int count : {1, 2, 3, 8}) {
        std::string sources;
        for (int i = 0; i < count; ++i) {
            sources += " " + dir.file("s" + std::to_string(i % 3) + ".gguf");
        }
        const CommandResult r = fuse_cli("--random " + std::to_string(count * 11) + " -o " +
                                         dir.file("out.gguf") + sources);
        EXPECT_EQ(r.status, 0) << count << " sources\n" << r.out;
    }
}

TEST_F(CliTest, EachRecipeFailureEndsTheRunWithItsMessage) {
    const struct {
        std::string recipe, message;
    } cases[] = {
        {"blend 1", "recipe line 1: unknown directive 'blend'"},
        {"\nout",
         "recipe line 2: vector::_M_range_check: __n (which is 1) >= this->size() "
         "(which is 1)"},
        {"layers 0-3", "recipe line 1: missing method in: layers 0-3"},
        {"out q4_k_l", "recipe line 1: unknown out type 'q4_k_l'"},
        {"default slerp x", "recipe line 1: stof"},
        {"layers -1-3 pick 0", "recipe line 1: stoi"},
        {"seed abc", "recipe line 1: stoull"},
        {"stack 0", "recipe line 1: stack slice needs src:a-b"},
        {"default pick 2", "pick index out of range in: default pick 2"},
        {"stack 2:0-1", "stack source index out of range"},
        {"stack 1:0-2", "stack layer 2 out of range for source 1"},
    };
    for (const auto& c : cases) {
        const CommandResult r =
            fuse_cli("-e " + shell_quote(c.recipe) + " -o " + out + " " + a + " " + b);
        EXPECT_EQ(r.status, 2) << c.recipe;
        EXPECT_NE(r.out.find("FAILED: " + c.message + "\n"), std::string::npos) << r.out;
    }
    EXPECT_NE(fuse_cli("-e 'default nearswap' -o " + out + " " + a)
                  .out.find("FAILED: slerp / nearswap need at least 2 sources\n"),
              std::string::npos);
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
