#include "model/kv_text.h"

#include <gtest/gtest.h>

#include "model/gguf_handle.h"

namespace tevrin {
namespace {

TEST(KvText, EveryTypeListsAndSummaries) {
    GgufHandle ctx(gguf_init_empty());
    gguf_context* g = ctx.get();
    gguf_set_val_u8(g, "u8", 65);
    gguf_set_val_i8(g, "i8", -128);
    gguf_set_val_u64(g, "u64", UINT64_MAX);
    gguf_set_val_i64(g, "i64", INT64_MIN);
    gguf_set_val_f32(g, "f32", 1e-5f);
    gguf_set_val_f64(g, "f64", 1234567.0);
    const char* strings[] = {"s", "s", "s", "s", "s", "s", "s", "s", "s"};
    gguf_set_arr_str(g, "8 str", strings, 8);
    gguf_set_arr_str(g, "9 str", strings, 9);
    gguf_set_arr_str(g, "0 str", strings, 0);
    const int32_t ints[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    gguf_set_arr_data(g, "16 i32", GGUF_TYPE_INT32, ints, 16);
    gguf_set_arr_data(g, "17 i32", GGUF_TYPE_INT32, ints, 17);
    const uint8_t bytes[] = {65, 0, 2};
    gguf_set_arr_data(g, "u8s", GGUF_TYPE_UINT8, bytes, 3);
    gguf_set_arr_data(g, "bools", GGUF_TYPE_BOOL, bytes, 3);
    const float floats[] = {0.5f, -1e-7f, 1e6f};
    gguf_set_arr_data(g, "f32s", GGUF_TYPE_FLOAT32, floats, 3);
    const double doubles[] = {1.0, 2.0};
    gguf_set_arr_data(g, "f64s", GGUF_TYPE_FLOAT64, doubles, 2);

    std::string texts;
    for (int64_t id = 0; id < gguf_get_n_kv(g); ++id) {
        texts += std::string(gguf_get_key(g, id)) + "=" + kv_value_text(g, id) + "; ";
    }
    EXPECT_EQ(texts,
              "u8=65; i8=-128; u64=18446744073709551615; "
              "i64=-9223372036854775808; f32=1e-05; f64=1.23457e+06; "
              "8 str=[s, s, s, s, s, s, s, s]; 9 str=[str x 9]; 0 str=[]; "
              "16 i32=[-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14]; 17 i32=[i32 x 17]; "
              "u8s=[65, 0, 2]; bools=[true, false, true]; f32s=[0.5, -1e-07, 1e+06]; "
              "f64s=[?, ?]; ");

    // Strings are cut as values only, never inside a listed array.
    const std::string a600(600, 'a'), b700(700, 'b');
    gguf_set_val_str(g, "600", a600.c_str());
    gguf_set_val_str(g, "601", (a600 + "z").c_str());
    const char* listed[] = {b700.c_str(), "q\"x"};
    gguf_set_arr_str(g, "listed", listed, 2);
    EXPECT_EQ(kv_text(g, "600"), a600);
    EXPECT_EQ(kv_text(g, "601"), a600 + "...");
    EXPECT_EQ(kv_text(g, "listed"), "[" + b700 + ", q\"x]");
    EXPECT_EQ(kv_text(g, "absent"), "");
}

}  // namespace
}  // namespace tevrin
