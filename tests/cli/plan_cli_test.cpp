// --plan, --tensors and the warnings of a run, as a user meets them: streams,
// statuses, the values printed, and no file written by a plan.
#include <gtest/gtest.h>

#include "tests/cli/cli_run.h"
#include "tests/model/json_check.h"

namespace tevrin::testing {
namespace {

struct PlanCli : ::testing::Test {
    TempDir dir;
    std::string a = dir.file("a.gguf"), b = dir.file("b.gguf"), out = dir.file("out.gguf");
    std::string two = shell_quote(a) + " " + shell_quote(b);
    void SetUp() override {
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 1), a);
        write_fixture(llama_fixture(2, 64, GGML_TYPE_F16, 2), b);
    }
};

TEST_F(PlanCli, PrintsTheValuesEachTensorGetsAndWritesNothing) {
    const std::string recipe = "-e 'layers 0-1 slerp 0.2>0.8\ntensor output* pick 1' ";
    CommandResult r = fuse_cli("--plan " + recipe + "-o " + shell_quote(out) + " " + two);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_FALSE(file_exists(out));
    EXPECT_PRED2(has, line_with(r.out, "blk.0.attn_q.weight"), "slerp 0.2 ");
    EXPECT_PRED2(has, line_with(r.out, "blk.1.attn_q.weight"), "slerp 0.8 ");
    EXPECT_PRED2(has, line_with(r.out, "output.weight"), "pick 1");
    EXPECT_PRED2(has, line_with(r.out, "blk.1.attn_norm.weight"), "f32 (1-D)");
    EXPECT_TRUE(r.out.ends_with("\nOK: ok\n")) << r.out;

    r = fuse_cli("--plan --json " + recipe + two);
    EXPECT_EQ(r.status, 0);
    for (const std::string& line : lines_of(r.out)) {
        EXPECT_TRUE(is_valid_json(line)) << line;
    }
    EXPECT_PRED2(has, line_with(r.out, "\"blk.1.ffn_up.weight\""), "\"t\":0.8,");
    EXPECT_PRED2(has, r.out, "{\"kind\":\"summary\",\"ok\":true,");

    // A run that would fail: status 2 and the failure line (the preview tests check
    // that the message is the run's own).
    r = fuse_cli("--plan -e 'default pick 4' " + two);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.ends_with("FAILED: pick index out of range in: default pick 4\n")) << r.out;
}

TEST_F(PlanCli, RunWarnsOnStandardErrorOnly) {
    const std::string args = " -o " + shell_quote(out) + " " + two;
    CommandResult r = fuse_cli("-e 'default linear 0.5, 0.5'" + args);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.err.starts_with("warning: recipe line 1: '0.5' is ignored")) << r.err;
    EXPECT_FALSE(has(r.out, "warning"));

    // An unreadable recipe file: the run goes on with the empty recipe.
    const std::string missing = shell_quote(dir.file("missing.txt"));
    r = fuse_cli("-r " + missing + args);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("---- recipe ----\n\n----------------\nOK: ok\n")) << r.out;
    EXPECT_TRUE(r.err.starts_with("warning: cannot read recipe file " + dir.file("missing.txt") +
                                  ": the recipe is empty\n"))
        << r.err;
    r = fuse_cli("-r " + missing + " -e 'default linear'" + args);  // replaced: no warning
    EXPECT_FALSE(has(r.err, "warning")) << r.err;
    r = fuse_cli("-r " + shell_quote(dir.path) + args);  // a folder reads as nothing too
    EXPECT_TRUE(r.err.starts_with("warning: cannot read recipe file")) << r.err;
}

}  // namespace
}  // namespace tevrin::testing
