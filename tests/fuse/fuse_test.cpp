// Whole runs through fuse(): stage order, counters, notes, failures and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

#include "fuse/fuse.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

struct FuseTest : ::testing::Test {
    TempDir dir;
    std::string out = dir.file("out.gguf");

    std::string model(const std::string& name, int32_t layers, uint64_t seed,
                      const std::string& arch = "llama", ggml_type type = GGML_TYPE_F16,
                      int64_t width = 64) {
        const std::string path = dir.file(name);
        write_fixture(llama_fixture(layers, width, type, seed, arch), path);
        return path;
    }
};

FuseResult run(const std::vector<std::string>& sources, const std::string& recipe,
               const std::string& out, int threads = 2, const ProgressFn& progress = {},
               const std::atomic<bool>* cancel = nullptr) {
    return fuse(sources, recipe, out, threads, cancel, progress);
}

TEST_F(FuseTest, SourceCountIsCheckedBeforeAnything) {
    int events = 0;
    const ProgressFn count = [&](const FuseProgress&) { ++events; };
    EXPECT_EQ(run({}, "", out, 1, count).message, "add at least one source model");
    const FuseResult r = run(std::vector<std::string>(9, "x"), "", out, 1, count);
    EXPECT_EQ(r.message, "at most 8 source models");
    EXPECT_EQ(events, 0);
    EXPECT_EQ(r.tensors + r.params + r.fallback + r.layers, 0);
    EXPECT_FALSE(file_exists(out));
    EXPECT_TRUE(run(std::vector<std::string>(8, model("a.gguf", 1, 1)), "", out).ok);
}

TEST_F(FuseTest, SuccessfulRunFillsTheResultAndAValidFile) {
    const std::string a = model("a.gguf", 3, 1), b = model("b.gguf", 3, 2);
    std::vector<FuseProgress> events;
    const FuseResult r =
        run({a, b}, "out q8_0\n", out, 2, [&](const FuseProgress& p) { events.push_back(p); });
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.message, "ok");
    EXPECT_EQ(r.output_path, out);
    EXPECT_EQ(r.tensors, 12);
    EXPECT_EQ(r.layers, 3);
    EXPECT_EQ(r.fallback, 0);
    struct stat st;
    ASSERT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_EQ(r.bytes, uint64_t(st.st_size));

    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front().label, "Uncorking sources");
    EXPECT_EQ(events.back().label, "Corked");
    EXPECT_EQ(events.back().fraction, 1.0f);
    for (size_t i = 1; i < events.size(); ++i) {
        EXPECT_GE(events[i].fraction, events[i - 1].fraction);
    }

    // A loader's eye: every tensor lies aligned inside the file, in plan order.
    GgufHandle g = read_gguf_header(out.c_str());
    ASSERT_TRUE(g);
    ASSERT_EQ(gguf_get_n_tensors(g.get()), 12);
    EXPECT_STREQ(gguf_get_tensor_name(g.get(), 0), "token_embd.weight");
    const size_t align = gguf_get_alignment(g.get());
    for (int64_t i = 0; i < 12; ++i) {
        const size_t off = gguf_get_data_offset(g.get()) + gguf_get_tensor_offset(g.get(), i);
        EXPECT_EQ(off % align, 0u);
        EXPECT_LE(off + gguf_get_tensor_size(g.get(), i), size_t(st.st_size));
    }
}

TEST_F(FuseTest, NotesAreSortedAndDeduplicated) {
    const std::string base = model("base.gguf", 4, 1);
    const std::string deep = model("deep.gguf", 6, 2);
    const std::string other = model("other.gguf", 4, 3, "qwen2");
    const std::string other_deep = model("other-deep.gguf", 6, 4, "qwen2");
    FuseResult r = run({base, other, deep, other_deep}, "", out);
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.message,
              "depth-aligned 6 layers onto 4; "
              "mixed families (llama + qwen2): mismatched tensors keep the base");
    // A stacked run gets no depth notes.
    r = run({base, deep}, "stack 0:0-1 1:4-5", out);
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.message, "ok");
    EXPECT_EQ(r.layers, 4);
}

TEST_F(FuseTest, StackedOutputTakesWholeLayersFromTheirSources) {
    const std::string base = model("base.gguf", 2, 1), deep = model("deep.gguf", 4, 2);
    const FuseResult r = run({base, deep}, "out keep\nstack 1:3 0:1 1:0 0:1", out);
    ASSERT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.layers, 4);
    GgufHandle g = read_gguf_header(out.c_str());
    ASSERT_TRUE(g);
    EXPECT_EQ(gguf_get_val_u32(g.get(), gguf_find_key(g.get(), "llama.block_count")), 4u);
    // Shared tensors first, then each output layer in the base's tensor order.
    EXPECT_STREQ(gguf_get_tensor_name(g.get(), 2), "output.weight");
    EXPECT_STREQ(gguf_get_tensor_name(g.get(), 3), "blk.0.attn_norm.weight");
    const struct {
        int out_layer;
        std::string source;
        int layer;
    } expected[] = {{0, deep, 3}, {1, base, 1}, {2, deep, 0}, {3, base, 1}};
    for (const auto& e : expected) {
        for (const std::string suffix : {"attn_norm.weight", "attn_q.weight", "ffn_up.weight"}) {
            const std::string name = "blk." + std::to_string(e.out_layer) + "." + suffix;
            EXPECT_EQ(read_tensor_bytes(out, name),
                      read_tensor_bytes(e.source, "blk." + std::to_string(e.layer) + "." + suffix))
                << name;
        }
    }
}

TEST_F(FuseTest, FailuresBeforeTheOutputLeaveAnExistingFileAlone) {
    const std::string a = model("a.gguf", 2, 1);
    for (const std::string recipe : {"default pick 3", "stack 0:0-5", "bogus"}) {
        write_file(out, "precious");
        const FuseResult r = run({a}, recipe, out);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(read_file(out), "precious") << recipe;
    }
    EXPECT_EQ(run({a}, "stack 0:0-5", out).message, "stack layer 2 out of range for source 0");
}

TEST_F(FuseTest, OutputNamingASourceIsRefused) {
    const std::string a = model("a.gguf", 2, 1);
    const std::string before = read_file(a);
    ASSERT_EQ(link(a.c_str(), dir.file("hard.gguf").c_str()), 0);
    for (const std::string& path : {a, dir.path + "/./a.gguf", dir.file("hard.gguf")}) {
        const FuseResult r = run({a}, "", path);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.message, "output would overwrite source " + a);
        EXPECT_EQ(read_file(a), before);
    }
}

TEST_F(FuseTest, CancelStopsAtATensorBoundaryAndRemovesTheFile) {
    // F16 tensors into f16 are copied whole: one progress event per tensor.
    const std::string a = model("a.gguf", 3, 1);
    std::atomic<bool> cancel{false};
    int closed = 0;
    const FuseResult r = run(
        {a}, "out f16", out, 2,
        [&](const FuseProgress& p) {
            if (p.label.rfind("Blending ", 0) == 0 && ++closed == 3) {
                cancel = true;
            }
        },
        &cancel);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "cancelled");
    EXPECT_EQ(r.tensors, 3);
    EXPECT_GT(r.params, 0);
    EXPECT_EQ(r.layers, 0);
    EXPECT_EQ(r.bytes, 0u);
    EXPECT_FALSE(file_exists(out));
}

TEST_F(FuseTest, ThrowingProgressCallbackFailsTheRun) {
    const std::string a = model("a.gguf", 2, 1);
    for (const std::string at : {"Blending output.weight", "Corked"}) {
        const FuseResult r = run({a}, "", out, 2, [&](const FuseProgress& p) {
            if (p.label == at) {
                throw std::runtime_error("stop at " + at);
            }
        });
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.message, "stop at " + at);
        // A failed run never leaves a file it made, even a finished one.
        EXPECT_FALSE(file_exists(out));
    }
}

TEST_F(FuseTest, OutputBytesDoNotDependOnThreadCount) {
    const std::string a = model("a.gguf", 2, 1, "llama", GGML_TYPE_F32, 256);
    const std::string b = model("b.gguf", 2, 2, "llama", GGML_TYPE_Q8_0, 256);
    const std::string c = model("c.gguf", 2, 3, "llama", GGML_TYPE_F16, 256);
    for (const std::string method :
         {"linear 1,2,3", "slerp 0.3", "ties 0.4", "dare 0.3", "della 0.4", "chaos 0.7",
          "breadcrumbs 0.8", "task 0.7", "median", "nearswap 0.01", "pick 1", "model_stock",
          "sce 0.4", "karcher 10 1,2,1", "multislerp 1", "nuslerp 0,1,2"}) {
        SCOPED_TRACE(method);
        std::string first;
        for (int threads : {1, 2, 3, 8}) {
            const FuseResult r = run({a, b, c}, "out q4_k\ndefault " + method, out, threads);
            ASSERT_TRUE(r.ok) << r.message;
            const std::string bytes = read_file(out);
            if (first.empty()) {
                first = bytes;
            } else {
                EXPECT_TRUE(bytes == first) << threads << " threads";
            }
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
