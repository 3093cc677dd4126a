// The preview against the run it foretells: on the corpus of sources and a set of
// recipes, every type, shape, size, method value and failure the preview reports
// is the one the run used; the memory estimate matches the buffers the pipeline
// sizes; and each source-dependent warning fires on one recipe and stays silent on
// its corrected twin.
#include <gtest/gtest.h>

#include "fuse/encode_rows.h"
#include "fuse/run_preview.h"
#include "fuse/write_tensor.h"
#include "tests/fuse/fuse_fixtures.h"

namespace tevrin::testing {
namespace {

// The bytes the run must have written for one tensor, made from the preview's
// sources and spec with the kernel and the encoder.
std::vector<uint8_t> expected_bytes(const RunPreview& p, const std::vector<std::string>& paths,
                                    size_t i) {
    const TensorPlan& plan = p.run.plans[i];
    const ActiveSources& active = p.tensors[i].active;
    const auto source_name = [&](int32_t s) {
        return std::string(tensor_name(*p.sources[size_t(s)], plan.source_tensors[size_t(s)]));
    };
    if (p.tensors[i].copied) {
        return read_tensor_bytes(paths[size_t(active.single)], source_name(active.single));
    }
    std::vector<std::string> files, names;
    for (const int32_t s : active.sources) {
        files.push_back(paths[size_t(s)]);
        names.push_back(source_name(s));
    }
    const int64_t row_len = plan.ne[0], rows = plan.ne[1] * plan.ne[2] * plan.ne[3];
    const auto values = blended_files(active.spec, files, plan.name, row_len, names, p.recipe.seed);
    const size_t row_bytes = ggml_row_size(ggml_type(plan.out_type), row_len);
    std::vector<uint8_t> bytes(row_bytes * size_t(rows));
    encode_rows(plan.out_type, values.data(), bytes.data(), rows, row_len, row_bytes);
    return bytes;
}

void expect_run_matches(const std::vector<std::string>& paths, const std::string& recipe,
                        const std::string& out) {
    SCOPED_TRACE(recipe);
    const RunPreview p = preview_run(paths, recipe);
    const FuseResult r = fuse(paths, recipe, out, 2, nullptr, {});
    ASSERT_EQ(p.ok, r.ok);
    EXPECT_EQ(p.message, r.message);
    if (!r.ok) {
        return;
    }
    EXPECT_EQ(p.output_bytes, r.bytes);
    EXPECT_EQ(p.params, r.params);
    EXPECT_EQ(p.fallback, r.fallback);
    EXPECT_EQ(p.run.output_layers, r.layers);
    SourceModel written;
    written.open(out);
    ASSERT_EQ(tensor_count(written), int64_t(p.run.plans.size()));
    for (size_t i = 0; i < p.run.plans.size(); ++i) {
        const TensorPlan& plan = p.run.plans[i];
        SCOPED_TRACE(plan.name);
        EXPECT_EQ(tensor_name(written, int64_t(i)), plan.name);
        EXPECT_EQ(tensor_type(written, int64_t(i)), plan.out_type);
        EXPECT_EQ(tensor_shape(written, int64_t(i)), plan.ne);
        EXPECT_EQ(tensor_size(written, int64_t(i)), p.tensors[i].bytes_out);
        EXPECT_EQ(read_tensor_bytes(out, plan.name), expected_bytes(p, paths, i));
    }
}

TEST(RunPreview, EveryValueIsTheOneTheRunUses) {
    Corpus c;
    const struct {
        std::string recipe;
        std::vector<std::string> sources;
    } cases[] = {
        {"", {c.a, c.b}},
        {"default slerp 0.2>0.9>0.1", {c.a, c.b}},
        {"layers 0-1 ties 0.5 1,0.5>1,1>0,1\ntensor *norm* pick 1", {c.a, c.b, c.c}},
        {"out q4_k\ndefault dare 0.3>0.6 1,1,1", {c.a, c.b, c.d}},  // rows of 64: f16
        {"out keep\ndefault della 0.4", {c.a, c.e, c.d}},
        {"out f16\ndefault pick 1", {c.a, c.c}},
        {"out q8_0\nstack 0:0-1 2:1-2 1:0\ntensor output* chaos 0.2", {c.a, c.d, c.c}},
        {"out keep\nstack 2:2 0:1 2:0 0:1", {c.a, c.d, c.c}},  // whole layers copied
        {"default task 0.7 1,0.5,0.25", {c.a, c.e, c.c}},
        {"default slerp t=0.3", {c.a, c.b}},                 // parse failure
        {"stack 0:0-5", {c.a, c.b}},                         // plan failure
        {"default median", {c.a, c.b, c.dir.file("none")}},  // open failure
    };
    for (const auto& item : cases) {
        expect_run_matches(item.sources, item.recipe, c.out);
    }
}

TEST(RunPreview, FailsAtTheTensorTheRunFailsAt) {
    FuseDir d;
    FixtureModel m = llama_fixture(1, 36, GGML_TYPE_F32, 1);  // 144-byte norms: padded
    add_tensor(m, "ids", GGML_TYPE_I32, {8, 2, 1, 1}).raw.assign(64, 1);
    const std::vector<std::string> two = {d.write("a.gguf", m), d.write("b.gguf", m)};
    const RunPreview p = preview_run(two, "default linear");
    EXPECT_EQ(p.message, "cannot dequantize type i32");
    EXPECT_EQ(p.tensors.size(), p.run.plans.size() - 1);  // all before the failing one
    expect_run_matches(two, "default linear", d.out);
    expect_run_matches({two[0]}, "out keep", d.out);  // copied whole
}

TEST(RunPreview, DropReasonsAndReadBytesAndBuffersMatchThePipeline) {
    Corpus c;
    const std::vector<std::string> paths = {c.a, c.d, c.e};
    const RunPreview p = preview_run(paths, "default linear", 2);  // the write below's threads
    ASSERT_TRUE(p.ok) << p.message;
    using D = DropReason;
    const std::map<std::string, std::vector<D>> dropped = {
        {"blk.1.attn_q.weight", {D::none, D::missing, D::none}},
        {"blk.0.ffn_up.weight", {D::none, D::other_shape, D::none}},
        {"output.weight", {D::none, D::none, D::other_vocabulary}}};
    for (const TensorPlan& plan : p.run.plans) {
        if (dropped.count(plan.name)) {
            EXPECT_EQ(plan.dropped, dropped.at(plan.name)) << plan.name;
        }
    }
    OutputStream out;
    open_output(out, c.out);
    RowBuffers buffers;
    const ProgressFn none;
    const WriteContext ctx{p.sources, p.recipe.seed, 2, nullptr, none, 1, out, buffers};
    std::vector<uint64_t> floats(paths.size(), 0);
    MemoryEstimate seen;
    for (size_t i = 0; i < p.run.plans.size(); ++i) {
        EXPECT_EQ(write_tensor(ctx, p.run.plans[i], 0).read, p.tensors[i].bytes_read)
            << p.run.plans[i].name;
        for (size_t s = 0; s < paths.size(); ++s) {
            floats[s] = std::max<uint64_t>(floats[s], buffers.source_floats[s].size() * 4);
        }
        seen.blended = std::max<uint64_t>(seen.blended, buffers.blended.size() * 4);
        seen.encoded = std::max<uint64_t>(seen.encoded, buffers.encoded.size());
    }
    discard_output(out);
    EXPECT_EQ(p.memory.source_floats, floats[0] + floats[1] + floats[2]);
    EXPECT_EQ(p.memory.blended, seen.blended);
    EXPECT_EQ(p.memory.encoded, seen.encoded);
    EXPECT_EQ(p.memory.stream_buffer, kStreamBufferBytes);
}

// Each warning that needs the sources, with the recipe that triggers it and a
// corrected one that must stay silent. The base has 2 layers; source 1 (d) lacks
// blk.1.attn_q.weight.
TEST(RunPreview, SourceWarningsFireOnlyOnTheirMistake) {
    Corpus c;
    const struct {
        std::string wrong, warning, right;
    } cases[] = {
        {"layers 10-20 ties", "recipe line 1: layers 10-20 lie beyond the base's 2 layers (0-1)",
         "layers 0-1 ties"},
        {"layers 2-5 ties", "recipe line 1: layers 2-5 lie beyond", "layers 1 ties"},
        {"layers 1-5 slerp 0.2>0.8", "recipe line 1: layers 1-5 reach beyond",
         "layers 1 slerp 0.2>0.8"},
        {"tensor model.layers.* ties", "recipe line 1: 'model.layers.*' matches no tensor",
         "tensor blk.*.attn_q.weight ties"},
        {"tensor *q* ties\ntensor *attn_q* pick 0",
         "recipe line 1: '*q*' is overruled by later tensor rules",
         "tensor *q* ties\ntensor *up* pick 0"},
        {"layers 1 ties\nlayers 0-1 pick 0", "recipe line 1: the rule is overruled",
         "layers 0-1 pick 0\nlayers 1 ties"},
        {"tensor blk.1.attn_q.weight pick 1", "recipe line 1: pick 1: source 1 has none",
         "tensor blk.1.ffn_up.weight pick 1"},
        {"default ties\ntensor * pick 0", "recipe line 1: the default applies to no tensor",
         "default ties\ntensor *norm* pick 0"},
        {"stack 0:0-1\ntensor blk.0.* ties", "recipe line 2: 'blk.0.*' matches only stacked",
         "stack 0:0-1\ntensor output* ties"},
    };
    for (const auto& item : cases) {
        const RunPreview wrong = preview_run({c.a, c.d}, item.wrong);
        ASSERT_EQ(wrong.warnings.size(), 1u) << item.wrong;
        EXPECT_EQ(wrong.warnings[0].rfind(item.warning, 0), 0u) << wrong.warnings[0];
        const RunPreview right = preview_run({c.a, c.d}, item.right);
        EXPECT_TRUE(right.warnings.empty()) << item.right << ": " << right.warnings[0];
    }
}

}  // namespace
}  // namespace tevrin::testing
