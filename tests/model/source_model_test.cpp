// Opening a source model: headers that would make ggml abort or overflow later,
// whole regular files only, keys of another type or range, and a model split into
// shards, which opens as one source from any of its shards; every way a set of
// shards can fail to fit together is refused with the shard's name.
#include "model/source_model.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "model/shard_names.h"
#include "tests/support/gguf_builder.h"
#include "tests/support/shard_writer.h"

namespace tevrin::testing {
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
    TempDir dir;
    for (const auto& [what, raw, accepted] : cases) {
        write_file(dir.file("h.gguf"), raw.bytes());
        EXPECT_EQ(read_gguf_header(dir.file("h.gguf").c_str()) != nullptr, accepted) << what;
    }
}

// Only regular files are opened: a FIFO without a writer would block the open.
TEST(SourceModel, OpensWholeRegularFilesOnly) {
    TempDir dir;
    const std::string path = dir.file("m.gguf"), cut = dir.file("cut.gguf");
    write_fixture(llama_fixture(2, 32, GGML_TYPE_F32, 1, "qwen2"), path);
    SourceModel m;
    m.open(path);
    EXPECT_EQ(std::make_tuple(m.arch, m.n_layer, m.tensor_index.size()),
              std::make_tuple("qwen2", 2, 9u));
    // The last tensor ends exactly at the end of the file: one byte less is refused.
    const std::string whole = read_file(path);
    EXPECT_EQ(m.shards[0].mapping_size, whole.size());
    write_file(cut, whole.substr(0, whole.size() - 1));
    EXPECT_EQ(source_open_error(cut), "tensor data beyond end of file: " + cut);
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const std::string& bad : {dir.file("missing"), dir.file("fifo"), dir.path}) {
        EXPECT_EQ(source_open_error(bad), "not a valid GGUF: " + bad);
    }
}

// An architecture that is no string, and a block count that is no uint32 or does not fit
// an int32, count as absent.
TEST(SourceModel, KeysOfAnotherTypeOrRange) {
    TempDir dir;
    for (const auto& [as_i32, count, n_layer] : {std::tuple<bool, uint32_t, int32_t>{true, 3, 0},
                                                 {false, 0x7fffffffu, 0x7fffffff},
                                                 {false, 0x80000000u, 0}}) {
        FixtureModel odd = fixture_model();
        gguf_context* g = odd.meta.get();
        gguf_set_val_u32(g, "general.architecture", 7);
        as_i32 ? gguf_set_val_i32(g, "unknown.block_count", int32_t(count))
               : gguf_set_val_u32(g, "unknown.block_count", count);
        write_fixture(odd, dir.file("odd.gguf"));
        SourceModel m;
        m.open(dir.file("odd.gguf"));
        EXPECT_EQ(std::make_pair(m.arch, m.n_layer),
                  std::make_pair(std::string("unknown"), n_layer));
    }
}

const std::set<std::string> kSplitKeys = {kSplitNoKey, kSplitCountKey, kSplitTensorsKey};

struct ShardedSource : ::testing::Test {
    TempDir dir;
    std::string whole = dir.file("m.gguf");
    void SetUp() override {
        write_fixture(llama_fixture(3, 64, GGML_TYPE_Q8_0, 1, "qwen2"), whole);  // 12 tensors
    }
};

TEST_F(ShardedSource, AnyShardOpensTheWholeModel) {
    for (const int64_t per_shard : {1, 5, 11}) {
        const std::string prefix = dir.file("cut" + std::to_string(per_shard));
        const auto paths = write_shards(whole, prefix, ShardCut{per_shard});
        for (const std::string& given : paths) {
            SourceModel m;
            m.open(given);
            EXPECT_EQ(m.path, given);
            EXPECT_EQ(m.shards.size(), paths.size());
            EXPECT_EQ(std::make_pair(m.arch, m.n_layer), std::make_pair(std::string("qwen2"), 3));
            EXPECT_EQ(tensor_fd(m, 11), m.shards.back().fd);
            expect_same_model(whole, given, kSplitKeys);
        }
    }
}

// A file whose split.count is 0 or 1 (merged, or cut into a single piece) stands alone.
TEST_F(ShardedSource, OneShardOrNoneStandsAlone) {
    for (const uint16_t count : {0, 1}) {
        FixtureModel model = llama_fixture(1, 32, GGML_TYPE_F16, 2);
        gguf_set_val_u16(model.meta.get(), kSplitCountKey, count);
        gguf_set_val_u16(model.meta.get(), kSplitNoKey, 0);
        write_fixture(model, dir.file("single.gguf"));
        SourceModel m;
        m.open(dir.file("single.gguf"));
        EXPECT_EQ(m.shards.size(), 1u);
        EXPECT_EQ(tensor_count(m), 6);
    }
}

TEST_F(ShardedSource, ShardsThatDoNotFitTogetherAreRefused) {
    const auto three = write_shards(whole, dir.file("m3"), ShardCut{5});
    const auto four = write_shards(whole, dir.file("m4"), ShardCut{3});
    const auto short_count = write_shards(whole, dir.file("short"), ShardCut{5, 11});
    const auto repeated = write_shards(whole, dir.file("rep"), ShardCut{5, 14, true});
    write_fixture(llama_fixture(2, 64, GGML_TYPE_Q8_0, 1, "qwen2"), dir.file("small.gguf"));
    const auto small = write_shards(dir.file("small.gguf"), dir.file("small"), ShardCut{4});
    FixtureModel no_number = llama_fixture(1, 32, GGML_TYPE_F16, 3);
    gguf_set_val_u16(no_number.meta.get(), kSplitCountKey, 2);
    const std::string lone = dir.file("lone-00001-of-00002.gguf");
    write_fixture(no_number, lone);
    const std::string renamed = dir.file("renamed.gguf");
    std::filesystem::copy_file(three[0], renamed);

    const std::string other = "shard of another model: " + three[1];
    const struct {
        std::string given, damage_to, damage_from, message;  // from "": removed
    } cases[] = {
        {three[0], three[1], "", "missing shard " + three[1]},
        {three[2], three[0], "", "missing shard " + three[0]},
        {three[0], three[1], four[1], other},   // split.count
        {three[0], three[1], three[2], other},  // split.no
        {three[0], three[1], small[1], other},  // split.tensors.count (3 shards of 9 tensors)
        {three[0], three[2], "junk", "not a valid GGUF: " + three[2]},
        {short_count[1], "", "",
         "tensor count does not add up: " + short_count[0] +
             " promises 11 tensors, its 3 shards hold 12"},
        {repeated[0], "", "", "duplicate tensor blk.1.attn_norm.weight in shard " + repeated[1]},
        {lone, "", "", "shard without a valid split.no or split.tensors.count: " + lone},
        {renamed, "", "", "shard " + renamed + " is not named <prefix>-00001-of-00003.gguf"},
    };
    for (const auto& c : cases) {
        const std::string saved = c.damage_to.empty() ? "" : read_file(c.damage_to);
        if (!c.damage_to.empty()) {
            std::filesystem::remove(c.damage_to);
            if (c.damage_from == "junk") {
                write_file(c.damage_to, "GGUF and nothing more");
            } else if (!c.damage_from.empty()) {
                std::filesystem::copy_file(c.damage_from, c.damage_to);
            }
        }
        EXPECT_EQ(source_open_error(c.given), c.message);
        if (!c.damage_to.empty()) {
            write_file(c.damage_to, saved);
        }
    }
}

}  // namespace
}  // namespace tevrin::testing
