#include "model/kv_text.h"

#include <gtest/gtest.h>

#include <locale>
#include <vector>

#include "model/gguf_handle.h"

namespace tevrin {
namespace {

template <typename T>
void set_array(gguf_context* g, const char* key, gguf_type type, const std::vector<T>& v) {
    gguf_set_arr_data(g, key, type, v.data(), v.size());
}

void set_strings(gguf_context* g, const char* key, const std::vector<std::string>& v) {
    std::vector<const char*> p;
    for (const auto& s : v) {
        p.push_back(s.c_str());
    }
    gguf_set_arr_str(g, key, p.data(), p.size());
}

std::string list_of(int n, int first) {
    std::string t = "[";
    for (int i = 0; i < n; ++i) {
        t += i ? ", " : "";
        t += std::to_string(first + i);
    }
    return t + "]";
}

TEST(KvText, EveryValueTypeAndLimit) {
    GgufHandle ctx(gguf_init_empty());
    gguf_context* g = ctx.get();
    const std::string a600(600, 'a'), b700(700, 'b');
    gguf_set_val_u8(g, "u8", 65);
    gguf_set_val_i8(g, "i8", -128);
    gguf_set_val_u16(g, "u16", 65535);
    gguf_set_val_i16(g, "i16", -32768);
    gguf_set_val_u32(g, "u32", 4294967295u);
    gguf_set_val_i32(g, "i32", INT32_MIN);
    gguf_set_val_u64(g, "u64", UINT64_MAX);
    gguf_set_val_i64(g, "i64", INT64_MIN);
    gguf_set_val_f32(g, "f32", 0.1f);
    gguf_set_val_f32(g, "f32 big", 1e10f);
    gguf_set_val_f32(g, "f32 small", 1e-5f);
    gguf_set_val_f64(g, "f64", 3.14159265);
    gguf_set_val_f64(g, "f64 big", 1234567.0);
    gguf_set_val_f64(g, "f64 whole", 10000.0);
    gguf_set_val_bool(g, "true", true);
    gguf_set_val_bool(g, "false", false);
    gguf_set_val_str(g, "empty", "");
    gguf_set_val_str(g, "600", a600.c_str());
    gguf_set_val_str(g, "601", (a600 + "z").c_str());
    gguf_set_val_str(g, "cut in char", (std::string(599, 'a') + "\xc3\xa9").c_str());
    std::vector<std::string> nine;
    for (int i = 0; i < 9; ++i) {
        nine.push_back(std::string(1, char('a' + i)));
    }
    set_strings(g, "8 str", {nine.begin(), nine.end() - 1});
    set_strings(g, "9 str", nine);
    set_strings(g, "long str", {b700, "q\"x"});
    set_strings(g, "0 str", {});
    std::vector<int32_t> ints;
    for (int i = 0; i < 17; ++i) {
        ints.push_back(i - 1);
    }
    set_array<int32_t>(g, "16 i32", GGUF_TYPE_INT32, {ints.begin(), ints.end() - 1});
    set_array<int32_t>(g, "17 i32", GGUF_TYPE_INT32, ints);
    set_array<uint8_t>(g, "0 u8", GGUF_TYPE_UINT8, {});
    set_array<double>(g, "0 f64", GGUF_TYPE_FLOAT64, {});
    set_array<uint8_t>(g, "u8s", GGUF_TYPE_UINT8, {65, 0, 255});
    set_array<int8_t>(g, "i8s", GGUF_TYPE_INT8, {-1, 127});
    set_array<uint32_t>(g, "u32s", GGUF_TYPE_UINT32, {4294967295u, 7});
    set_array<float>(g, "f32s", GGUF_TYPE_FLOAT32, {0.5f, -1e-7f, 100000.f, 1e6f});
    set_array<uint8_t>(g, "bools", GGUF_TYPE_BOOL, {1, 0, 2});
    set_array<double>(g, "f64s", GGUF_TYPE_FLOAT64, {1.0, 2.0});
    set_array<uint16_t>(g, "u16s", GGUF_TYPE_UINT16, {1, 2, 3});
    set_array<int16_t>(g, "i16s", GGUF_TYPE_INT16, {1});
    set_array<uint64_t>(g, "u64s", GGUF_TYPE_UINT64, {1, 2});
    set_array<int64_t>(g, "i64s", GGUF_TYPE_INT64, {1, 2});
    set_array<uint64_t>(g, "17 u64", GGUF_TYPE_UINT64, std::vector<uint64_t>(17, 1));
    set_array<double>(g, "16 f64", GGUF_TYPE_FLOAT64, std::vector<double>(16, 1.0));

    const std::pair<const char*, std::string> expected[] = {
        {"u8", "65"},  // digits, not a letter
        {"i8", "-128"},
        {"u16", "65535"},
        {"i16", "-32768"},
        {"u32", "4294967295"},
        {"i32", "-2147483648"},
        {"u64", "18446744073709551615"},
        {"i64", "-9223372036854775808"},
        {"f32", "0.1"},
        {"f32 big", "1e+10"},
        {"f32 small", "1e-05"},
        {"f64", "3.14159"},
        {"f64 big", "1.23457e+06"},
        {"f64 whole", "10000"},
        {"true", "true"},
        {"false", "false"},
        {"empty", ""},
        {"600", a600},
        {"601", a600 + "..."},
        {"cut in char", std::string(599, 'a') + "\xc3..."},
        {"8 str", "[a, b, c, d, e, f, g, h]"},
        {"9 str", "[str x 9]"},
        {"long str", "[" + b700 + ", q\"x]"},  // listed strings are never cut or quoted
        {"0 str", "[]"},
        {"16 i32", list_of(16, -1)},
        {"17 i32", "[i32 x 17]"},
        {"0 u8", "[]"},
        {"0 f64", "[]"},
        {"u8s", "[65, 0, 255]"},
        {"i8s", "[-1, 127]"},
        {"u32s", "[4294967295, 7]"},
        {"f32s", "[0.5, -1e-07, 100000, 1e+06]"},
        {"bools", "[true, false, true]"},
        {"f64s", "[?, ?]"},
        {"u16s", "[?, ?, ?]"},
        {"i16s", "[?]"},
        {"u64s", "[?, ?]"},
        {"i64s", "[?, ?]"},
        {"17 u64", "[u64 x 17]"},
        {"16 f64", "[?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?]"},
    };
    for (const auto& [key, text] : expected) {
        EXPECT_EQ(kv_text(g, key), text) << key;
    }
    // A missing key cannot be told from an empty string.
    EXPECT_EQ(kv_text(g, "absent"), "");
    EXPECT_EQ(kv_value_text(g, 1), "-128");
}

// A process-wide locale with a decimal comma and digit grouping must not reach the
// text of numbers.
struct CommaNumpunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(KvText, NumbersIgnoreTheGlobalLocale) {
    const std::locale previous =
        std::locale::global(std::locale(std::locale::classic(), new CommaNumpunct));
    GgufHandle ctx(gguf_init_empty());
    gguf_set_val_f64(ctx.get(), "f", 1234.5);
    gguf_set_val_u32(ctx.get(), "u", 1234567);
    set_array<float>(ctx.get(), "a", GGUF_TYPE_FLOAT32, {2.5f});
    const std::string texts[] = {kv_text(ctx.get(), "f"), kv_text(ctx.get(), "u"),
                                 kv_text(ctx.get(), "a")};
    std::locale::global(previous);
    EXPECT_EQ(texts[0], "1234.5");
    EXPECT_EQ(texts[1], "1234567");
    EXPECT_EQ(texts[2], "[2.5]");
}

}  // namespace
}  // namespace tevrin
