// Hostile inputs through the real executable: one clear line, the stated status,
// and no hang on special files.
#include <gtest/gtest.h>

#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

TEST(CliHardening, SpecialSourcesAndHugeStacksFailCleanly) {
    TempDir dir;
    const std::string a = dir.file("a.gguf"), fifo = dir.file("fifo"), out = dir.file("out.gguf");
    write_fixture(llama_fixture(2, 32, GGML_TYPE_F16, 1), a);
    ASSERT_EQ(run_command("mkfifo " + fifo).status, 0);
    // `timeout` turns a hang into status 124 instead of a stuck test.
    const std::string exe = "timeout 60 " + shell_quote(fuse_exe());
    CommandResult r = run_command(exe + " --inspect " + fifo);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "{\"ok\":false,\"error\":\"not a valid GGUF file\"}\n");
    for (const std::string& source : {fifo, dir.path}) {
        r = run_command(exe + " -o " + out + " " + a + " " + source);
        EXPECT_EQ(r.status, 2) << source;
        EXPECT_NE(r.out.find("FAILED: not a valid GGUF: " + source + "\n"), std::string::npos);
    }
    r = run_command(exe + " -e 'stack 0:0-2000000000' -o " + out + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: recipe line 1: stack too long (at most 65536 layers)\n"),
              std::string::npos)
        << r.out;
    EXPECT_FALSE(file_exists(out));
}

// A FIFO output whose reader quits early: a failed run with its summary, not SIGPIPE.
TEST(CliHardening, OutputReaderGoingAwayIsAWriteError) {
    TempDir dir;
    const std::string a = dir.file("a.gguf"), fifo = dir.file("fifo");
    write_fixture(llama_fixture(2, 256, GGML_TYPE_F32, 1), a);
    const CommandResult r = run_command("mkfifo " + fifo + " && (head -c 100 " + fifo +
                                        " >/dev/null &) && timeout 60 " + shell_quote(fuse_exe()) +
                                        " -e 'out f32' -o " + fifo + " " + a);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("FAILED: write error (disk full?)\n"), std::string::npos) << r.out;
}

// A source truncated under the mapping raises SIGBUS at the next read; the run
// ends as a failed one. The signal is sent by hand once writing has started, as
// a truncation cannot be timed; the stack makes the run long enough to catch.
TEST(CliHardening, BusErrorEndsTheRunAsAFailure) {
    TempDir dir;
    const std::string a = dir.file("a.gguf"), out = dir.file("out.gguf");
    write_fixture(llama_fixture(4, 256, GGML_TYPE_F32, 1), a);
    std::string stack = "out q4_k\nstack";
    for (int i = 0; i < 400; ++i) {
        stack += " 0:0-3";
    }
    write_file(dir.file("r.txt"), stack);
    const CommandResult r = run_command(shell_quote(fuse_exe()) + " -r " + dir.file("r.txt") +
                                        " -o " + out + " " + a + " & pid=$!; while [ ! -s " + out +
                                        " ]; do sleep 0.01; done; kill -BUS $pid; wait $pid");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(
        r.out.find("\nFAILED: source data unreadable (a source file cut short during the run?)\n"),
        std::string::npos)
        << r.out;
    EXPECT_FALSE(file_exists(out));
}

}  // namespace
}  // namespace tevrin::testing
