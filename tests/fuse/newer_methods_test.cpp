// The five newer methods in whole runs: the words reach their kernels with their
// arguments, weights follow their sources when a donor lacks a tensor, and the
// tensors outside a stack are blended like any other.
#include <gtest/gtest.h>

#include "blend/blend.h"
#include "blend/draws.h"
#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

struct NewerMethod {
    const char* expression;
    BlendMethod method;
    float t;
    std::vector<float> weights;
};

const NewerMethod kNewer[] = {
    {"model_stock", BlendMethod::model_stock, 0.5f, {}},
    {"sce 0.3", BlendMethod::sce, 0.3f, {}},
    {"karcher 12 1,2,1", BlendMethod::karcher, 12, {1, 2, 1}},
    {"multislerp 1 0,1,3", BlendMethod::multislerp, 1, {0, 1, 3}},
    {"nuslerp 0,1,3", BlendMethod::nuslerp, 0.5f, {0, 1, 3}},
};

// The kernel on the decoded tensor of the given sources, as a run would call it.
std::vector<float> expected(const NewerMethod& m, const std::vector<std::string>& paths,
                            const std::vector<size_t>& active, const std::string& name,
                            int64_t row_len) {
    MethodSpec spec;
    spec.method = m.method, spec.t = m.t;
    std::vector<std::vector<float>> rows;
    std::vector<const float*> sources;
    for (size_t s : active) {
        rows.push_back(read_tensor_floats(paths[s], name));
        if (!m.weights.empty()) {
            spec.weights.push_back(m.weights[s]);
        }
    }
    for (const auto& r : rows) {
        sources.push_back(r.data());
    }
    std::vector<float> out(rows[0].size());
    const auto count = int64_t(out.size()) / row_len;
    blend_rows(spec, tensor_seed(42, name), 0, sources, out.data(), count, row_len);
    return out;
}

TEST(NewerMethods, RunInThePipelineWithDropOutsAndStacks) {
    TempDir dir;
    std::vector<std::string> paths;
    for (uint64_t s = 0; s < 3; ++s) {
        FixtureModel m = llama_fixture(2, 64, GGML_TYPE_F32, 30 + s);
        if (s == 1) {  // the first donor lacks the output head
            m.tensors.pop_back();
        }
        paths.push_back(dir.file("s" + std::to_string(s) + ".gguf"));
        write_fixture(m, paths.back());
    }
    const std::string out = dir.file("out.gguf");
    for (const auto& m : kNewer) {
        SCOPED_TRACE(m.expression);
        for (const std::string stack : {"", "stack 0:0-1 2:1\n"}) {
            const FuseResult r =
                fuse(paths, "out f32\n" + stack + "default " + m.expression, out, 2, nullptr, {});
            ASSERT_TRUE(r.ok) << r.message;
            EXPECT_EQ(r.layers, stack.empty() ? 2 : 3);
            EXPECT_EQ(read_tensor_floats(out, "token_embd.weight"),
                      expected(m, paths, {0, 1, 2}, "token_embd.weight", 64));
            EXPECT_EQ(read_tensor_floats(out, "output.weight"),
                      expected(m, paths, {0, 2}, "output.weight", 64));
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
