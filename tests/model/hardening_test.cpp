// Headers that ggml's parser accepts but that would overflow or make ggml abort later.
#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/gguf_builder.h"

namespace tevrin {
namespace {

// A GGUF v3 header written byte by byte, for what ggml's own writer will not make.
struct RawGguf {
    std::string kvs, infos;
    int64_t n_kv = 0, n_tensors = 0;
    uint64_t offset = 0;

    template <typename T>
    static std::string le(T value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof(T));
    }
    static std::string str(const std::string& s) { return le<uint64_t>(s.size()) + s; }
    RawGguf& kv(const std::string& key, const std::string& text_value) {
        kvs += str(key) + le<uint32_t>(GGUF_TYPE_STRING) + str(text_value);
        return ++n_kv, *this;
    }
    RawGguf& kv(const std::string& key, uint32_t value) {
        kvs += str(key) + le<uint32_t>(GGUF_TYPE_UINT32) + le(value);
        return ++n_kv, *this;
    }
    RawGguf& tensor(const std::string& name, std::vector<int64_t> ne) {  // f32
        infos += str(name) + le<uint32_t>(ne.size());
        for (int64_t n : ne) {
            infos += le(n);
        }
        infos += le<int32_t>(GGML_TYPE_F32) + le(offset);
        ne.resize(4, 1);
        offset += (uint64_t(ne[0]) * ne[1] * ne[2] * ne[3] * 4 + 31) / 32 * 32;
        return ++n_tensors, *this;
    }
    std::string bytes() const {
        std::string out = "GGUF" + le<uint32_t>(3) + le(n_tensors) + le(n_kv) + kvs + infos;
        out.resize((out.size() + 31) / 32 * 32, '\0');
        return out;
    }
};

TEST(ModelHardening, HeadersThatWouldAbortOrOverflowAreInvalid) {
    const std::string nul("\0", 1);
    const int64_t big = int64_t(1) << 31, huge = int64_t(1) << 40;
    const std::vector<std::tuple<const char*, RawGguf, bool>> cases = {
        {"key starting with NUL", RawGguf().kv(nul + "hidden", 1), false},
        {"second alignment behind a NUL",
         RawGguf().kv("general.alignment", 32).kv("general.alignment" + nul + "x", "oops"), false},
        {"keys equal up to a NUL", RawGguf().kv("a" + nul + "x", 1).kv("a" + nul + "y", 2), false},
        {"key with a NUL inside, alone", RawGguf().kv("abc" + nul + "def", 1), true},
        {"element count wraps to 0", RawGguf().tensor("x", {huge, huge}), false},
        {"huge dimensions beside a 0", RawGguf().tensor("x", {0, big, big}), false},
        {"empty tensors of sane shape", RawGguf().tensor("x", {0, 4}).tensor("y", {32, 0}), true},
    };
    testing::TempDir dir;
    for (const auto& [what, raw, accepted] : cases) {
        testing::write_file(dir.file("h.gguf"), raw.bytes());
        EXPECT_EQ(read_gguf_header(dir.file("h.gguf").c_str()) != nullptr, accepted) << what;
    }
}

}  // namespace
}  // namespace tevrin
