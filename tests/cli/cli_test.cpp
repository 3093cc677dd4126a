// The real executable as a user meets it: arguments, streams, statuses, files.
#include <gtest/gtest.h>

#include <cstdio>

#include "cli/command_line.h"
#include "cli/progress_printer.h"
#include "recipe/random_recipe.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

const std::string kUsage = "usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...\n";

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
    for (const std::string args : {"", "a.gguf -o", "--inspect", "--dry", "-o x.gguf",
                                   "-e 'default pick 0' a.gguf", "-o '' a.gguf"}) {
        SCOPED_TRACE(args);
        const CommandResult r = fuse_cli(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, kUsage);
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(CliTest, InspectStopsTheScanAndAlwaysSucceeds) {
    CommandResult r = fuse_cli("--inspect " + a + " -o whatever --bogus");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("{\"ok\":true", 0), 0u);
    EXPECT_EQ(r.out.back(), '\n');

    r = fuse_cli("--inspect " + dir.file("missing.gguf"));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "{\"ok\":false,\"error\":\"not a valid GGUF file\"}\n");
}

TEST_F(CliTest, DryPrintsRecipeTextExactly) {
    CommandResult r = fuse_cli("--dry -e 'not a recipe at all' " + a);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "not a recipe at all");

    // -r and -e write the same text: the later one wins.
    write_file(dir.file("r.txt"), "from\r\nfile\n");
    r = fuse_cli("-e first -r " + dir.file("r.txt") + " --dry x");
    EXPECT_EQ(r.out, "from\r\nfile\n");
    r = fuse_cli("-r " + dir.file("r.txt") + " -e second --dry x");
    EXPECT_EQ(r.out, "second");
}

TEST_F(CliTest, RandomSeedHandling) {
    const std::string seed0 = random_recipe(1, 2, 0, "q8_0");
    EXPECT_EQ(fuse_cli("--dry --random abc " + a).out, seed0);
    EXPECT_EQ(fuse_cli("--dry --random ' +0' " + a).out, seed0);
    // A negative seed turns generation off, so the -e text stands.
    EXPECT_EQ(fuse_cli("--dry --random -1 -e mine " + a).out, "mine");
    // The generated text wins over -r/-e in either order, and --type reaches it.
    const std::string gen = random_recipe(2, 2, 7, "q4_k");
    EXPECT_EQ(fuse_cli("--dry -e mine --random 7 --type q4_k " + a + " " + b).out, gen);
    EXPECT_EQ(fuse_cli("--random 7 --type q4_k -e mine --dry " + a + " " + b).out, gen);
    // An unreadable first source gives a layer count of 16.
    EXPECT_EQ(fuse_cli("--dry --random 5 " + dir.file("nope")).out, random_recipe(1, 16, 5, "q8_0"));
}

TEST_F(CliTest, SuccessfulRunPrintsBannerProgressAndSummary) {
    const CommandResult r = fuse_cli("-e 'default linear' -o " + out + " " + a + " " + b);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("---- recipe ----\ndefault linear\n----------------\nOK: ok\ntensors=9 "
                          "params=",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find(" layers=2 bytes="), std::string::npos);
    EXPECT_NE(r.err.find("\r100% Blending output.weight"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.back(), '\n');
    EXPECT_TRUE(file_exists(out));
}

TEST_F(CliTest, MissingRecipeFileRunsWithDefaults) {
    const CommandResult r = fuse_cli("-r " + dir.file("none.txt") + " -o " + out + " " + a);
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

    r = fuse_cli("-o " + out + " " + a + " " + dir.file("missing.gguf"));
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: not a valid GGUF: " + dir.file("missing.gguf")), std::string::npos);
}

TEST_F(CliTest, FullDiskFailsAtTheEndAndRemovesTheFile) {
    // A 64 KiB file-size limit with SIGXFSZ ignored makes writes fail like a full disk.
    write_fixture(llama_fixture(2, 256, GGML_TYPE_F32, 3), a);
    const CommandResult r = run_command("ulimit -f 64; trap '' XFSZ; exec " +
                                        shell_quote(fuse_exe()) + " -o " + out + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: write error (disk full?)\n"), std::string::npos) << r.out;
    EXPECT_FALSE(file_exists(out));
}

TEST_F(CliTest, SpecialOutputFilesAreNeverRemoved) {
    // A failing run (integer tensor that cannot be decoded) writing into a FIFO.
    FixtureModel m = llama_fixture(1, 64, GGML_TYPE_F16, 4);
    FixtureTensor& t = add_tensor(m, "ints", GGML_TYPE_I32, {64, 2, 1, 1});
    t.raw.assign(64 * 2 * 4, 0);
    write_fixture(m, a);
    const std::string fifo = dir.file("fifo");
    const CommandResult r = run_command("mkfifo " + fifo + " && (cat " + fifo +
                                        " >/dev/null &) && " + shell_quote(fuse_exe()) +
                                        " -e 'out f16' -o " + fifo + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: cannot dequantize type i32"), std::string::npos) << r.out;
    EXPECT_TRUE(file_exists(fifo));
}

TEST(ProgressPrinter, ShowsOnlyFiveStepChanges) {
    FILE* f = std::tmpfile();
    ProgressPrinter p{-1, f};
    for (float fr : {0.0f, 0.04f, 0.05f, 0.07f, 0.5f, 0.999f, 1.0f}) {
        print_progress(p, FuseProgress{fr, "Blending x"});
    }
    std::rewind(f);
    char buf[1024] = {};
    const size_t n = std::fread(buf, 1, sizeof buf, f);
    std::fclose(f);
    const std::string pad(50, ' ');
    EXPECT_EQ(std::string(buf, n), "\r  5% Blending x" + pad + "\r 50% Blending x" + pad +
                                       "\r 99% Blending x" + pad + "\r100% Blending x" + pad);
}

TEST(ReportLayerCount, ReadsTheFirstLayerCount) {
    EXPECT_EQ(report_layer_count("{\"n_layer\":\"32\",\"n_layer\":\"5\"}"), 32);
    EXPECT_EQ(report_layer_count("{\"n_layer\":\"\"}"), 0);
    EXPECT_EQ(report_layer_count("{\"ok\":false}"), 16);
}

}  // namespace
}  // namespace tevrin::testing
