// The output file as a user relies on it: replaced whole or not at all, through
// interrupts, kills, bus errors, full disks, concurrent runs, FIFOs and symbolic
// links; and --help and --version.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "cli/help_text.h"
#include "tests/cli/cli_run.h"

namespace tevrin::testing {
namespace {

struct SafeOutputTest : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a.gguf"), out = dir.file("out.gguf");
    std::string exe = shell_quote(fuse_exe());
    void SetUp() override {
        write_fixture(llama_fixture(4, 256, GGML_TYPE_F32, 1), a);
        write_file(out, "earlier output");
    }
    // Starts a run of 1600 q4_k layers in the background as $pid, long enough to be
    // interrupted anywhere, and waits until its temporary file holds more than `bytes`.
    std::string long_run_past(uint64_t bytes) {
        std::string stack = "out q4_k\nstack";
        for (int i = 0; i < 400; ++i) {
            stack += " 0:0-3";
        }
        write_file(dir.file("long.txt"), stack);
        return exe + " -t 1 -r " + dir.file("long.txt") + " -o " + out + " " + a +
               " & pid=$!; for i in $(seq 6000); do [ $(stat -c %s " + dir.path +
               "/.out.gguf.tevrin-$pid.tmp 2>/dev/null || echo 0) -gt " + std::to_string(bytes) +
               " ] && break; sleep 0.01; done; ";
    }
};

// SIGINT, SIGTERM and SIGHUP cancel the run at its next chunk. SIGBUS, what a
// source cut short under the mapping raises (sent by hand, as a truncation cannot
// be timed), ends it at once. Either way the run fails and the earlier file stays.
TEST_F(SafeOutputTest, SignalsEndTheRunAndKeepTheEarlierFile) {
    const std::string cancelled = "\nFAILED: cancelled\ntensors=";
    const std::pair<std::string, std::string> cases[] = {
        {"INT", cancelled},
        {"TERM", cancelled},
        {"HUP", cancelled},
        {"BUS", "\nFAILED: source data unreadable (a source file cut short during the run?)\n"}};
    for (const auto& [sig, message] : cases) {
        for (const uint64_t after : {0ull, 2000000ull}) {  // in the header, then in the data
            SCOPED_TRACE(sig + " after " + std::to_string(after));
            const CommandResult r =
                run_command(long_run_past(after) + "kill -" + sig + " $pid; wait $pid");
            EXPECT_EQ(r.status, 2);
            EXPECT_PRED2(has, r.out, message);
            EXPECT_EQ(read_file(out), "earlier output");
            EXPECT_EQ(unfinished_outputs(dir.path), 0);
        }
    }
    // A second signal ends the program at once; it still leaves nothing behind.
    const CommandResult r =
        run_command(long_run_past(0) + "kill -INT $pid; kill -INT $pid; wait $pid");
    EXPECT_TRUE(r.status == 130 || r.status == 2) << r.status;
    EXPECT_EQ(read_file(out), "earlier output");
    EXPECT_EQ(unfinished_outputs(dir.path), 0);
}

TEST_F(SafeOutputTest, AKilledRunLeavesOnlyItsTemporaryFile) {
    const CommandResult r = run_command(long_run_past(1000000) + "kill -KILL $pid; wait $pid");
    EXPECT_EQ(r.status, 128 + 9);
    EXPECT_EQ(read_file(out), "earlier output");
    EXPECT_EQ(unfinished_outputs(dir.path), 1);
}

TEST_F(SafeOutputTest, ConcurrentRunsReplaceTheOutputWhole) {
    const std::string one = dir.file("one.gguf"), two = dir.file("two.gguf");
    ASSERT_EQ(run_command(exe + " -e 'out f16' -o " + one + " " + a).status, 0);
    ASSERT_EQ(run_command(exe + " -e 'out q8_0' -o " + two + " " + a).status, 0);
    const CommandResult r = run_command(exe + " -e 'out f16' -o " + out + " " + a + " & " + exe +
                                        " -e 'out q8_0' -o " + out + " " + a + " & wait");
    EXPECT_EQ(r.status, 0);
    const std::string survivor = read_file(out);
    EXPECT_TRUE(survivor == read_file(one) || survivor == read_file(two));

    // A run that fails beside one that succeeds removes only its own file.
    run_command(exe + " -e 'out f16' -o " + out + " " + a + " & (ulimit -f 64; trap '' XFSZ; " +
                exe + " -e 'out q8_0' -o " + out + " " + a + ") & wait");
    EXPECT_EQ(read_file(out), read_file(one));
    EXPECT_EQ(unfinished_outputs(dir.path), 0);
}

TEST_F(SafeOutputTest, FullDisksAndLinkedOutputs) {
    // The output is a link: the file it names is replaced, and stays where it is.
    std::filesystem::create_directory(dir.file("real"));
    const std::string target = dir.file("real/model.gguf"), link = dir.file("link.gguf");
    write_file(target, "earlier output");
    std::filesystem::create_symlink("real/model.gguf", link);  // relative, like most links
    chmod(target.c_str(), 0640);

    // A 64 KiB file-size limit with SIGXFSZ ignored makes writes fail like a full
    // disk; the run stops at the chunk where it happened.
    CommandResult r =
        run_command("ulimit -f 64; trap '' XFSZ; exec " + exe + " -o " + link + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_PRED2(has, r.out, "FAILED: write error (disk full?)\n");
    EXPECT_EQ(read_file(target), "earlier output");
    EXPECT_EQ(unfinished_outputs(dir.file("real")), 0);

    r = run_command(exe + " -o " + link + " " + a);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(read_file(link), read_file(target));
    EXPECT_NE(read_file(target), "earlier output");
    struct stat after = {};
    ASSERT_EQ(stat(target.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 0777, 0640u);  // a replaced file keeps its permissions
}

// `timeout` turns a hang into status 124 instead of a stuck test.
TEST_F(SafeOutputTest, FifoOutputIsWrittenStraight) {
    const std::string fifo = dir.file("fifo"), copy = dir.file("copy.gguf");
    ASSERT_EQ(run_command("mkfifo " + fifo).status, 0);
    ASSERT_EQ(run_command(exe + " -o " + out + " " + a).status, 0);
    CommandResult r = run_command("cat " + fifo + " > " + copy + " & timeout 60 " + exe + " -o " +
                                  fifo + " " + a + "; st=$?; wait; exit $st");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(read_file(copy), read_file(out));
    EXPECT_EQ(unfinished_outputs(dir.path), 0);
    // A reader that quits early: a write error, not SIGPIPE, and the FIFO stays.
    r = run_command("(head -c 100 " + fifo + " >/dev/null &) && timeout 60 " + exe + " -o " + fifo +
                    " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_PRED2(has, r.out, "FAILED: write error (disk full?)\n");
    EXPECT_TRUE(file_exists(fifo));
}

TEST_F(SafeOutputTest, HelpVersionAndNonFiniteWarnings) {
    for (const std::string arg : {"-h", "--help", "a.gguf --help -o x"}) {
        const CommandResult r = run_command(exe + " " + arg);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, help_text());
    }
    CommandResult r = run_command(exe + " --version");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("tevrin-fuse ")) << r.out;
    EXPECT_PRED2(has, r.out, "\nggml ");

    // Values that blend to infinity or NaN are named on stderr; stdout and the
    // status stay those of a good run.
    write_fixture(llama_fixture(4, 256, GGML_TYPE_F32, 2), dir.file("b.gguf"));
    r = run_command(exe + " -e 'tensor blk.1.attn_q.weight task inf' -o " + out + " " + a + " " +
                    dir.file("b.gguf"));
    EXPECT_EQ(r.status, 0);
    EXPECT_PRED2(has, r.out, "OK: ok\n");
    EXPECT_PRED2(
        has, r.err,
        "\nwarning: tensor blk.1.attn_q.weight: 65536 values are not finite (nan or inf)\n");
    EXPECT_FALSE(has(r.err, "warning: tensor blk.0"));
}

}  // namespace
}  // namespace tevrin::testing
