#include "tests/support/gguf_builder.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tevrin::testing {

FixtureModel fixture_model(uint32_t alignment) {
    FixtureModel model;
    model.meta =
        alignment == 32 ? GgufHandle(gguf_init_empty()) : empty_gguf_with_alignment(alignment);
    return model;
}

FixtureTensor& add_tensor(FixtureModel& model, const std::string& name, ggml_type type,
                          std::array<int64_t, 4> ne, uint64_t seed) {
    FixtureTensor t;
    t.name = name;
    t.type = type;
    t.ne = ne;
    t.seed = seed;
    model.tensors.push_back(std::move(t));
    return model.tensors.back();
}

FixtureModel llama_fixture(int32_t layers, int64_t width, ggml_type type, uint64_t seed,
                           const std::string& arch) {
    FixtureModel model = fixture_model();
    gguf_set_val_str(model.meta.get(), "general.architecture", arch.c_str());
    gguf_set_val_u32(model.meta.get(), (arch + ".block_count").c_str(), uint32_t(layers));
    gguf_set_val_str(model.meta.get(), "general.name", "fixture");
    uint64_t s = seed * 1000;
    add_tensor(model, "token_embd.weight", type, {width, 16, 1, 1}, ++s);
    for (int32_t l = 0; l < layers; ++l) {
        const std::string p = "blk." + std::to_string(l) + ".";
        add_tensor(model, p + "attn_norm.weight", GGML_TYPE_F32, {width, 1, 1, 1}, ++s);
        add_tensor(model, p + "attn_q.weight", type, {width, width, 1, 1}, ++s);
        add_tensor(model, p + "ffn_up.weight", type, {width, 2 * width, 1, 1}, ++s);
    }
    add_tensor(model, "output_norm.weight", GGML_TYPE_F32, {width, 1, 1, 1}, ++s);
    add_tensor(model, "output.weight", type, {width, 16, 1, 1}, ++s);
    return model;
}

std::vector<float> fixture_values(uint64_t seed, int64_t count) {
    std::vector<float> v(static_cast<size_t>(count));
    uint64_t x = seed * 0x9e3779b97f4a7c15ull + 1;
    for (auto& f : v) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        f = float(int64_t(x >> 40) - (int64_t(1) << 23)) / float(1 << 23);
    }
    return v;
}

void write_fixture(const FixtureModel& model, const std::string& path) {
    size_t bytes = 1 << 20;
    for (const auto& t : model.tensors) {
        bytes += ggml_row_size(t.type, t.ne[0]) * t.ne[1] * t.ne[2] * t.ne[3] + 1024;
    }
    ggml_init_params params = {bytes, nullptr, false};
    GgmlHandle ctx(ggml_init(params));
    GgufHandle out(gguf_init_empty());
    // Copy the metadata into a context of the right layout alignment.
    const int64_t align_id = gguf_find_key(model.meta.get(), "general.alignment");
    if (align_id >= 0) {
        out = empty_gguf_with_alignment(gguf_get_val_u32(model.meta.get(), align_id));
    }
    gguf_set_kv(out.get(), model.meta.get());
    for (const auto& t : model.tensors) {
        ggml_tensor* tensor = ggml_new_tensor(ctx.get(), t.type, 4, t.ne.data());
        ggml_set_name(tensor, t.name.c_str());
        const int64_t n = ggml_nelements(tensor);
        static uint8_t no_data = 0;
        if (n == 0) {
            tensor->data = &no_data;  // the writer wants a pointer even for 0 bytes
        } else if (!t.raw.empty()) {
            if (t.raw.size() != ggml_nbytes(tensor)) {
                throw std::runtime_error("fixture raw size mismatch for " + t.name);
            }
            std::memcpy(tensor->data, t.raw.data(), t.raw.size());
        } else {
            std::vector<float> values = t.values.empty() ? fixture_values(t.seed, n) : t.values;
            if (int64_t(values.size()) != n) {
                throw std::runtime_error("fixture value count mismatch for " + t.name);
            }
            if (t.type == GGML_TYPE_F32) {
                std::memcpy(tensor->data, values.data(), size_t(n) * 4);
            } else {
                ggml_quantize_chunk(t.type, values.data(), tensor->data, 0, n / t.ne[0], t.ne[0],
                                    nullptr);
            }
        }
        gguf_add_tensor(out.get(), tensor);
    }
    if (!gguf_write_to_file(out.get(), path.c_str(), false)) {
        throw std::runtime_error("cannot write fixture " + path);
    }
}

namespace {

struct ReadTensor {
    GgufHandle gguf;
    int64_t id = -1;
    std::vector<uint8_t> bytes;
};

ReadTensor read_tensor(const std::string& path, const std::string& name) {
    ReadTensor r;
    r.gguf = read_gguf_header(path.c_str());
    if (!r.gguf) {
        throw std::runtime_error("not a GGUF file: " + path);
    }
    r.id = gguf_find_tensor(r.gguf.get(), name.c_str());
    if (r.id < 0) {
        throw std::runtime_error("no tensor " + name + " in " + path);
    }
    const size_t offset =
        gguf_get_data_offset(r.gguf.get()) + gguf_get_tensor_offset(r.gguf.get(), r.id);
    r.bytes.resize(gguf_get_tensor_size(r.gguf.get(), r.id));
    std::ifstream in(path, std::ios::binary);
    in.seekg(std::streamoff(offset));
    in.read(reinterpret_cast<char*>(r.bytes.data()), std::streamsize(r.bytes.size()));
    if (!in) {
        throw std::runtime_error("short tensor data for " + name + " in " + path);
    }
    return r;
}

}  // namespace

std::vector<uint8_t> read_tensor_bytes(const std::string& path, const std::string& name) {
    return read_tensor(path, name).bytes;
}

std::vector<float> read_tensor_floats(const std::string& path, const std::string& name) {
    ReadTensor r = read_tensor(path, name);
    const ggml_type type = gguf_get_tensor_type(r.gguf.get(), r.id);
    const int64_t* ne = gguf_get_tensor_ne(r.gguf.get(), r.id);
    const int64_t n = ne[0] * ne[1] * ne[2] * ne[3];
    std::vector<float> out(static_cast<size_t>(n));
    if (type == GGML_TYPE_F32) {
        std::memcpy(out.data(), r.bytes.data(), size_t(n) * 4);
    } else {
        ggml_get_type_traits(type)->to_float(r.bytes.data(), out.data(), n);
    }
    return out;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tevrin-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot make a temporary folder");
    }
    path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

std::vector<std::unique_ptr<SourceModel>> open_fixtures(const TempDir& dir,
                                                        const std::vector<FixtureModel>& models) {
    std::vector<std::unique_ptr<SourceModel>> sources;
    for (size_t i = 0; i < models.size(); ++i) {
        const std::string path = dir.file("m" + std::to_string(i) + ".gguf");
        write_fixture(models[i], path);
        sources.push_back(std::make_unique<SourceModel>());
        sources.back()->open(path);
    }
    return sources;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

bool file_exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string shell_quote(const std::string& text) {
    std::string q = "'";
    for (char c : text) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}

CommandResult run_command(const std::string& command) {
    TempDir dir;
    const std::string out = dir.file("out"), err = dir.file("err");
    const std::string full = "(" + command + ") >" + out + " 2>" + err;
    const int raw = std::system(full.c_str());
    CommandResult r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    r.out = read_file(out);
    r.err = read_file(err);
    return r;
}

int unfinished_outputs(const std::string& dir) {
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        found += name.find(".tevrin-") != std::string::npos && name.size() > 4 &&
                 name.compare(name.size() - 4, 4, ".tmp") == 0;
    }
    return found;
}

std::string source_open_error(const std::string& path) {
    SourceModel m;
    try {
        m.open(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace tevrin::testing
