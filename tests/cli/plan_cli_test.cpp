// --plan, --tensors and the warnings of a run, as a user meets them: streams,
// statuses, the values printed, and no file written by a plan.
#include <gtest/gtest.h>

#include <sstream>

#include "model/inspect.h"
#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

CommandResult fuse_cli(const std::string& args) {
    return run_command(shell_quote(fuse_exe()) + " " + args);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string line_with(const std::string& text, const std::string& part) {
    for (const std::string& line : lines_of(text)) {
        if (line.find(part) != std::string::npos) {
            return line;
        }
    }
    return "";
}

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
    EXPECT_NE(line_with(r.out, "blk.0.attn_q.weight").find("slerp 0.2 "), std::string::npos);
    EXPECT_NE(line_with(r.out, "blk.1.attn_q.weight").find("slerp 0.8 "), std::string::npos);
    EXPECT_NE(line_with(r.out, "output.weight").find("pick 1"), std::string::npos);
    EXPECT_NE(line_with(r.out, "blk.1.attn_norm.weight").find("f32 (1-D)"), std::string::npos);
    EXPECT_EQ(lines_of(r.out).back(), "OK: ok");

    r = fuse_cli("--plan --json " + recipe + two);
    EXPECT_EQ(r.status, 0);
    for (const std::string& line : lines_of(r.out)) {
        EXPECT_TRUE(is_valid_json(line)) << line;
    }
    EXPECT_NE(line_with(r.out, "\"blk.1.ffn_up.weight\"").find("\"t\":0.8,"), std::string::npos);
    EXPECT_EQ(
        line_with(r.out, "\"kind\":\"summary\"").rfind("{\"kind\":\"summary\",\"ok\":true", 0), 0u);
}

TEST_F(PlanCli, FailsWithTheRunsOwnMessage) {
    for (const std::string recipe : {"default slerp t=0.3", "stack 0:0-9", "default pick 4"}) {
        const CommandResult plan = fuse_cli("--plan -e '" + recipe + "' " + two);
        const CommandResult run =
            fuse_cli("-e '" + recipe + "' -o " + shell_quote(out) + " " + two);
        EXPECT_EQ(plan.status, 2) << recipe;
        EXPECT_EQ(run.status, 2) << recipe;
        const std::vector<std::string> run_lines = lines_of(run.out);
        ASSERT_GE(run_lines.size(), 4u);
        EXPECT_EQ(lines_of(plan.out).back(), run_lines[3]) << recipe;  // FAILED: <message>
    }
}

TEST_F(PlanCli, RunWarnsOnStandardErrorOnly) {
    const std::string args = " -o " + shell_quote(out) + " " + two;
    CommandResult r = fuse_cli("-e 'default linear 0.5, 0.5'" + args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err.rfind("warning: recipe line 1: '0.5' is ignored", 0), 0u) << r.err;
    EXPECT_EQ(r.out.find("warning"), std::string::npos);
    r = fuse_cli("-e 'default linear 0.5,0.5'" + args);
    EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;

    // An unreadable recipe file: the run goes on with the empty recipe.
    const std::string missing = shell_quote(dir.file("missing.txt"));
    r = fuse_cli("-r " + missing + args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err.rfind("warning: cannot read recipe file " + dir.file("missing.txt") +
                              ": the recipe is empty\n",
                          0),
              0u)
        << r.err;
    r = fuse_cli("-r " + missing + " -e 'default linear'" + args);  // replaced: no warning
    EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
    r = fuse_cli("-r " + shell_quote(dir.path) + args);  // a folder reads as nothing too
    EXPECT_EQ(r.err.rfind("warning: cannot read recipe file", 0), 0u) << r.err;
}

TEST_F(PlanCli, TensorsPrintsTheReportWithItsTensorList) {
    const CommandResult r = fuse_cli("--tensors " + shell_quote(a) + " -o x --bogus");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, inspect_json(a, true) + "\n");
    EXPECT_NE(r.out.find("blk.1.ffn_up.weight"), std::string::npos);
}

}  // namespace
}  // namespace tevrin::testing
