// Headers that ggml's parser accepts but that would overflow or make ggml abort
// later, and paths that are no regular files.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>

#include "model/inspect.h"
#include "model/source_model.h"
#include "tests/model/json_check.h"
#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

// A GGUF v3 file written byte by byte, for what ggml's own writer will not make.
struct RawGguf {
    std::string kvs, infos;
    int64_t n_kv = 0, n_tensors = 0;
    uint64_t offset = 0;

    template <typename T>
    static void put(std::string& to, T value) {
        char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        to.append(bytes, sizeof(T));
    }
    static void put_str(std::string& to, const std::string& s) {
        put<uint64_t>(to, s.size());
        to += s;
    }
    void kv_u32(const std::string& key, uint32_t value) {
        put_str(kvs, key);
        put<uint32_t>(kvs, GGUF_TYPE_UINT32);
        put<uint32_t>(kvs, value);
        ++n_kv;
    }
    void kv_str(const std::string& key, const std::string& value) {
        put_str(kvs, key);
        put<uint32_t>(kvs, GGUF_TYPE_STRING);
        put_str(kvs, value);
        ++n_kv;
    }
    void tensor(const std::string& name, std::vector<int64_t> ne, ggml_type type) {
        put_str(infos, name);
        put<uint32_t>(infos, uint32_t(ne.size()));
        for (int64_t n : ne) {
            put<int64_t>(infos, n);
        }
        put<int32_t>(infos, type);
        put<uint64_t>(infos, offset);
        ne.resize(4, 1);
        const uint64_t rows = uint64_t(ne[1]) * uint64_t(ne[2]) * uint64_t(ne[3]);
        offset += (ggml_row_size(type, ne[0]) * rows + 31) / 32 * 32;
        ++n_tensors;
    }
    // The header only: no tensor data follows.
    std::string bytes() const {
        std::string out = "GGUF";
        put<uint32_t>(out, 3);
        put<int64_t>(out, n_tensors);
        put<int64_t>(out, n_kv);
        out += kvs + infos;
        out.resize((out.size() + 31) / 32 * 32, '\0');
        return out;
    }
};

bool header_accepted(const RawGguf& raw) {
    testing::TempDir dir;
    testing::write_file(dir.file("h.gguf"), raw.bytes());
    return read_gguf_header(dir.file("h.gguf").c_str()) != nullptr;
}

TEST(ModelHardening, HeadersThatWouldAbortOrOverflowAreInvalid) {
    const std::string nul("\0", 1);
    struct Case {
        const char* what;
        RawGguf raw;
        bool accepted;
    };
    std::vector<Case> cases(7);
    cases[0] = {"key starting with NUL", {}, false};
    cases[0].raw.kv_u32(nul + "hidden", 1);
    cases[1] = {"second alignment behind a NUL", {}, false};
    cases[1].raw.kv_u32("general.alignment", 32);
    cases[1].raw.kv_str("general.alignment" + nul + "x", "oops");
    cases[2] = {"keys equal up to a NUL", {}, false};
    cases[2].raw.kv_u32("a" + nul + "x", 1);
    cases[2].raw.kv_u32("a" + nul + "y", 2);
    cases[3] = {"key with a NUL inside, alone", {}, true};
    cases[3].raw.kv_u32("abc" + nul + "def", 1);
    cases[4] = {"element count wraps to 0", {}, false};
    cases[4].raw.tensor("x", {int64_t(1) << 40, int64_t(1) << 40}, GGML_TYPE_F32);
    cases[5] = {"huge dimensions beside a 0", {}, false};
    cases[5].raw.tensor("x", {0, int64_t(1) << 31, int64_t(1) << 31}, GGML_TYPE_F32);
    cases[6] = {"empty tensors of sane shape", {}, true};
    cases[6].raw.tensor("x", {0, 4}, GGML_TYPE_F32);
    cases[6].raw.tensor("y", {32, 0}, GGML_TYPE_F32);
    for (const Case& c : cases) {
        EXPECT_EQ(header_accepted(c.raw), c.accepted) << c.what;
    }
}

// Sixteen tensors of 2^60 elements: the header's claims add up beyond 64 bits.
TEST(ModelHardening, InspectTotalsStopAtTheTop) {
    RawGguf raw;
    for (int i = 0; i < 16; ++i) {
        raw.tensor("t" + std::to_string(i), {int64_t(1) << 30, int64_t(1) << 30}, GGML_TYPE_Q4_0);
    }
    testing::TempDir dir;
    testing::write_file(dir.file("big.gguf"), raw.bytes());
    const std::string report = inspect_json(dir.file("big.gguf"), false);
    EXPECT_TRUE(testing::is_valid_json(report)) << report;
    EXPECT_NE(report.find("\"n_params\":9223372036854775807,"), std::string::npos) << report;
    EXPECT_NE(report.find("[\"q4_0\",16,9223372036854775807]"), std::string::npos) << report;
}

// A FIFO without a writer would block any open; it is refused before that.
TEST(ModelHardening, SpecialFilesAreNeverOpened) {
    testing::TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, dir.path}) {
        EXPECT_EQ(read_gguf_header(path.c_str()), nullptr) << path;
        EXPECT_EQ(inspect_json(path, true), "{\"ok\":false,\"error\":\"not a valid GGUF file\"}");
        SourceModel m;
        try {
            m.open(path);
            ADD_FAILURE() << path;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "not a valid GGUF: " + path);
        }
    }
}

TEST(ModelHardening, BlockCountBeyondInt32IsAbsent) {
    testing::TempDir dir;
    for (const uint32_t count : {0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        testing::FixtureModel m = testing::fixture_model();
        gguf_set_val_str(m.meta.get(), "general.architecture", "llama");
        gguf_set_val_u32(m.meta.get(), "llama.block_count", count);
        testing::write_fixture(m, dir.file("m.gguf"));
        SourceModel source;
        source.open(dir.file("m.gguf"));
        EXPECT_EQ(source.n_layer, count == 0x7fffffffu ? 0x7fffffff : 0) << count;
    }
}

}  // namespace
}  // namespace tevrin
