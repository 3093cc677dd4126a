// Writes small GGUF fixtures with ggml's own writer: chosen metadata and tensors
// of chosen names, shapes and types, into a temporary folder per test.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "model/gguf_handle.h"
#include "model/source_model.h"

namespace tevrin::testing {

struct FixtureTensor {
    std::string name;
    ggml_type type = GGML_TYPE_F32;
    std::array<int64_t, 4> ne = {1, 1, 1, 1};
    std::vector<float> values;  // encoded to `type`; empty: filled from `seed`
    std::vector<uint8_t> raw;   // stored as they are when not empty (integer types)
    uint64_t seed = 1;
};

struct FixtureModel {
    GgufHandle meta;  // keys go here through gguf_set_*; tensors are added on write
    std::vector<FixtureTensor> tensors;
};

// An empty model; `alignment` other than 32 also sets general.alignment.
FixtureModel fixture_model(uint32_t alignment = 32);

// A llama-shaped model: general.architecture, <arch>.block_count and per layer
// blk.N.attn_norm.weight [width], blk.N.attn_q.weight [width x width],
// blk.N.ffn_up.weight [width x 2*width], plus token_embd, output_norm and output.
FixtureModel llama_fixture(int32_t layers, int64_t width, ggml_type type, uint64_t seed,
                           const std::string& arch = "llama");

FixtureTensor& add_tensor(FixtureModel& model, const std::string& name, ggml_type type,
                          std::array<int64_t, 4> ne, uint64_t seed = 1);

// Deterministic values in roughly [-1, 1).
std::vector<float> fixture_values(uint64_t seed, int64_t count);

void write_fixture(const FixtureModel& model, const std::string& path);

// The message SourceModel::open fails with for `path`, or "" when it opens.
std::string source_open_error(const std::string& path);

// The decoded contents of one tensor of a GGUF file (any type with to_float).
std::vector<float> read_tensor_floats(const std::string& path, const std::string& name);
// The stored bytes of one tensor.
std::vector<uint8_t> read_tensor_bytes(const std::string& path, const std::string& name);

// A fresh folder under the system's temporary folder, removed on destruction.
struct TempDir {
    std::string path;
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path + "/" + name; }
};

// Writes each model as m<i>.gguf in `dir` and opens them in order, base first.
std::vector<std::unique_ptr<SourceModel>> open_fixtures(const TempDir& dir,
                                                        const std::vector<FixtureModel>& models);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);

// Runs a command through /bin/sh and captures both streams and the exit status.
struct CommandResult {
    int status = -1;
    std::string out;
    std::string err;
};
CommandResult run_command(const std::string& command);

// The temporary files of unfinished outputs (".<name>.tevrin-<pid>.tmp") in a folder.
int unfinished_outputs(const std::string& dir);
std::string shell_quote(const std::string& text);

// The tool and the sample generator as built next to the tests.
inline const char* fuse_exe() {
    return TEVRIN_FUSE_EXE;
}
inline const char* sample_exe() {
    return TEVRIN_SAMPLE_EXE;
}

}  // namespace tevrin::testing
