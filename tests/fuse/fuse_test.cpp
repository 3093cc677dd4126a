// Whole runs through fuse(): the result and the file, notes, every failure (which
// leaves the folder as it was) and cancelling. Stacked layers are checked by plan
// (plan_test) and byte for byte against it (run_preview_test). That the bytes do not
// depend on the thread count follows from the runs that match a single-call kernel
// (write_tensor_test, run_preview_test).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "model/shard_names.h"
#include "tests/fuse/fuse_fixtures.h"
#include "tests/support/imatrix_files.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
namespace {

struct FuseTest : ::testing::Test, Corpus {
    // Every file in the folder with its bytes.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path)) {
            all[entry.path().filename().string()] = read_file(entry.path().string());
        }
        return all;
    }
};

TEST_F(FuseTest, SuccessfulRunFillsTheResultAndAValidFile) {
    std::vector<FuseProgress> events;
    const FuseResult r =
        run({a, b}, "out q8_0\n", 2, {}, [&](const FuseProgress& p) { events.push_back(p); });
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.message, "ok");
    EXPECT_EQ(r.output_path, out);
    EXPECT_EQ(r.tensors, 9);
    EXPECT_EQ(r.layers, 2);
    EXPECT_EQ(r.fallback, 0);
    EXPECT_EQ(r.bytes, std::filesystem::file_size(out));
    EXPECT_EQ(events.front().label, "Uncorking sources");
    EXPECT_EQ(events.back().label, "Corked");
    EXPECT_EQ(events.back().fraction, 1.0f);
    for (size_t i = 1; i < events.size(); ++i) {
        EXPECT_GE(events[i].fraction, events[i - 1].fraction);
    }
    // ggml's own loader reads it whole: every tensor in its aligned place in the file.
    ggml_context* data = nullptr;
    GgufHandle g(gguf_init_from_file(out.c_str(), {false, &data}));
    GgmlHandle owner(data);
    ASSERT_TRUE(g);
    EXPECT_STREQ(gguf_get_tensor_name(g.get(), 0), "token_embd.weight");
}

TEST_F(FuseTest, NotesAreSortedAndDeduplicated) {
    const std::string q = llama("q.gguf", 2, 6, GGML_TYPE_F16, 64, "qwen2");
    const std::string q3 = llama("q3.gguf", 3, 7, GGML_TYPE_F16, 64, "qwen2");
    FuseResult r = run({a, q, c, q3}, "");
    EXPECT_EQ(r.message,
              "depth-aligned 3 layers onto 2; "
              "mixed families (llama + qwen2): mismatched tensors keep the base");
    r = run({a, c}, "stack 0:0-1 1:1-2");  // a stacked run gets no depth notes
    EXPECT_EQ(r.message, "ok");
    EXPECT_EQ(r.layers, 4);
}

// Whatever fails, and at whatever stage, the folder holds what it held before: the
// old output, the sources, no temporary file, no shard.
TEST_F(FuseTest, FailuresLeaveTheFolderAsItWas) {
    const std::string w = llama("w.gguf", 1, 1, GGML_TYPE_F32, 256);
    std::vector<MatrixEntry> entries;  // all but blk.0.ffn_up; then one of the wrong length
    for (const std::string name : {"token_embd.weight", "blk.0.attn_q.weight", "output.weight"}) {
        entries.push_back({name, std::vector<float>(256, 1.0f), {1}});
    }
    const std::string m = dir.file("m.gguf"), short_dat = dir.file("short.dat");
    write_matrix_gguf(m, entries);
    entries.push_back({"blk.0.ffn_up.weight", std::vector<float>(255, 1.0f), {1}});
    write_matrix_binary(short_dat, entries);
    // Data ggml cannot decode (i32), or that would make its grid-searching quantizers abort.
    FixtureModel grid = fixture_model();
    add_tensor(grid, "w", GGML_TYPE_IQ3_XXS, {256, 2, 1, 1});
    add_tensor(grid, "i", GGML_TYPE_I32, {8, 2, 1, 1}).raw.assign(64, 0);
    const std::string iq = write("iq.gguf", grid);
    FixtureModel nothing = fixture_model();
    add_tensor(nothing, "empty", GGML_TYPE_F32, {0, 64, 1, 1});
    const std::string empty = write("empty.gguf", nothing);
    std::vector<std::string> donors;  // of 0.5, 1e13 and NaN
    for (const float value : {0.5f, 1e13f, NAN}) {
        FixtureModel donor = fixture_model();
        add_tensor(donor, "w", GGML_TYPE_F32, {256, 2, 1, 1}).values.assign(512, value);
        donors.push_back(write("donor" + std::to_string(donors.size()) + ".gguf", donor));
    }
    ASSERT_EQ(link(a.c_str(), dir.file("hard.gguf").c_str()), 0);
    const auto shards = write_shards(a, dir.file("a"), ShardCut{5});
    const std::string overwrite = "output would overwrite source ", range = "value out of range";
    const std::string needs = " needs an importance matrix (--imatrix)", none = dir.file("none");
    const std::string no_fit = "blk.1.attn_q.weight (rows of 64)";
    const std::string no_entry =
        "tensor blk.0.ffn_up.weight has no importance matrix entry, which type iq2_xxs needs";
    const std::string too_short =
        "importance matrix entry blk.0.ffn_up.weight holds 255 values, "
        "tensor blk.0.ffn_up.weight needs 256";
    const struct {
        std::vector<std::string> sources;
        std::string recipe, message, matrix = "", output = "";
        SplitLimits split = {};
    } cases[] = {
        {{}, "", "add at least one source model"},
        {std::vector<std::string>(9, a), "", "at most 8 source models"},
        {std::vector<std::string>(8, a), "", "ok"},
        {{a}, "default pick 3", "pick index out of range in: default pick 3"},
        {{a}, "bogus", "recipe line 1: unknown directive 'bogus'"},
        {{a}, "stack 0:0-5", "stack layer 2 out of range for source 0"},
        {{a}, "type blk.1.* q4_k", "type q4_K does not fit tensor " + no_fit},
        {{a}, "out iq2_xs", "ok"},  // rows of 64 fall back to f16, which needs no matrix
        {{w}, "out iq2_xs", "type iq2_xs" + needs},
        {{w}, "type *ffn* iq1_m", "type iq1_m" + needs},
        {{w}, "out q2_k_s", "type q2_K" + needs},
        {{w}, "out iq2_xxs", no_entry, m},
        {{w}, "out iq2_xxs\ntype blk.0.ffn_up.weight q8_0", "ok", m},
        {{w}, "out q4_k", too_short, short_dat},
        {{w}, "out q4_k", "cannot read importance matrix " + none, none},
        {{iq, donors[0]}, "out keep", "ok"},  // i32 copied whole, iq3_xxs re-encoded
        {{iq, donors[1]}, "out keep", "cannot quantize to type iq3_xxs: " + range},
        {{iq, donors[2]}, "out keep", "cannot quantize to type iq3_xxs: " + range},
        {{iq, donors[0]}, "out f16", "cannot dequantize type i32"},
        {{empty, empty}, "out q8_0", "ok"},  // no element: no row reaches ggml
        {{a}, "", overwrite + a, "", a},
        {{a}, "", overwrite + a, "", dir.path + "/./a.gguf"},
        {{a}, "", overwrite + a, "", dir.file("hard.gguf")},
        {{shards[0]}, "", overwrite + shards[1], "", shards[1]},
        {{shards[0]}, "", overwrite + shards[0], "", a, {0, 5}},  // a's shards' names
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.recipe + " -> " + c.message);
        write_file(out, "precious");
        const auto before = files();
        const std::string output = c.output.empty() ? out : c.output;
        const FuseResult r =
            fuse(c.sources, c.recipe, output, 2, nullptr, {}, FuseOptions{c.matrix, c.split});
        EXPECT_EQ(r.message, c.message);
        if (!r.ok) {
            EXPECT_EQ(r.bytes + r.layers, 0u);
            EXPECT_EQ(files(), before);
        }
    }
}

// A run stops at a tensor boundary; a split one keeps its complete shards under
// hidden names until all are complete, and removes them, as it removes those that
// took their names when a later one cannot.
TEST_F(FuseTest, CancelledOrUnfinishedRunsLeaveNoFile) {
    for (const SplitLimits limits : {SplitLimits{}, SplitLimits{0, 2}}) {
        const auto before = files();
        std::atomic<bool> cancel{false};
        int copied = 0;  // F16 into f16 is copied whole: one event per tensor
        const auto stop_at_seventh = [&](const FuseProgress& p) {
            if (p.label.rfind("Blending ", 0) == 0 && ++copied == 7) {
                cancel = true;
                EXPECT_EQ(files().size(), before.size() + (limits.max_tensors ? 4 : 1));
                EXPECT_FALSE(
                    file_exists(limits.max_tensors ? shard_path(dir.file("out"), 0, 5) : out));
            }
        };
        const FuseResult r = run({a}, "out f16", 2, {"", limits}, stop_at_seventh, &cancel);
        EXPECT_EQ(r.message, "cancelled");
        EXPECT_EQ(r.tensors, 7);
        EXPECT_EQ(r.bytes + r.layers, 0u);
        EXPECT_EQ(files(), before);
    }
    // A later shard cannot take its name after the first did: the first goes too.
    const auto before = files();
    const std::string second = shard_path(dir.file("out"), 1, 5);
    const FuseResult late = run({a}, "out f16", 2, {"", {0, 2}}, [&](const FuseProgress& p) {
        if (p.label == "Corked") {
            std::filesystem::create_directory(second);
        }
    });
    EXPECT_EQ(late.message, "cannot write " + second);
    std::filesystem::remove(second);
    EXPECT_EQ(files(), before);
}

TEST_F(FuseTest, ThrowingProgressCallbackFailsTheRun) {
    for (const std::string at : {"Blending output.weight", "Corked"}) {
        const FuseResult r = run({a}, "", 2, {}, [&](const FuseProgress& p) {
            if (p.label == at) {
                throw std::runtime_error("stop at " + at);
            }
        });
        EXPECT_EQ(r.message, "stop at " + at);
        EXPECT_FALSE(file_exists(out));  // not even a finished file
    }
}

}  // namespace
}  // namespace tevrin::testing
