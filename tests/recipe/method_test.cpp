// Method expressions, schedules, out type words and the number readers.
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "recipe/random_recipe.h"
#include "recipe/recipe.h"

namespace tevrin {
namespace {

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;) {
        out.push_back(w);
    }
    return out;
}

MethodSpec spec_of(const std::string& expression) {
    return parse_method(words(expression), 0, expression);
}

template <typename F>
std::string failure_of(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

struct MethodCase {
    std::string expression;
    BlendMethod method;
    float t;
    float t_end;
    bool scheduled;
    std::vector<float> weights;
    std::vector<float> weights_end;
    int32_t pick;
};

TEST(MethodExpression, ArgumentsDefaultsAndSchedules) {
    const std::vector<MethodCase> cases = {
        {"linear", BlendMethod::linear, 0.5f, 0.0f, false, {}, {}, 0},
        {"linear 0.7,0.3 0.9", BlendMethod::linear, 0.5f, 0.0f, false, {0.7f, 0.3f}, {}, 0},
        {"linear 1,0>0,1", BlendMethod::linear, 0.5f, 0.0f, true, {1, 0}, {0, 1}, 0},
        {"median 1 2 3", BlendMethod::median, 0.5f, 0.0f, false, {}, {}, 0},
        {"slerp", BlendMethod::slerp, 0.5f, 0.0f, false, {}, {}, 0},
        {"slerp 0.2>0.8", BlendMethod::slerp, 0.2f, 0.8f, true, {}, {}, 0},
        {"slerp 0.1>0.5>0.9", BlendMethod::slerp, 0.1f, 0.5f, true, {}, {}, 0},
        {"slerp 0.3 1,1", BlendMethod::slerp, 0.3f, 0.0f, false, {}, {}, 0},
        {"ties", BlendMethod::ties, 0.5f, 0.0f, false, {}, {}, 0},
        {"ties 1,1", BlendMethod::ties, 1.0f, 0.0f, false, {}, {}, 0},
        {"ties 0.5 >1,1", BlendMethod::ties, 0.5f, 0.0f, true, {}, {1, 1}, 0},
        {"ties 0.5 1,1>", BlendMethod::ties, 0.5f, 0.0f, true, {1, 1}, {}, 0},
        {"ties 0.3 ,1,,2,", BlendMethod::ties, 0.3f, 0.0f, false, {1, 2}, {}, 0},
        {"dare", BlendMethod::dare, 0.5f, 0.0f, false, {}, {}, 0},
        {"task", BlendMethod::task, 1.0f, 0.0f, false, {}, {}, 0},
        {"task 1.0 1,0>0,1", BlendMethod::task, 1.0f, 0.0f, true, {1, 0}, {0, 1}, 0},
        {"breadcrumbs", BlendMethod::breadcrumbs, 0.8f, 0.0f, false, {}, {}, 0},
        {"della", BlendMethod::della, 0.4f, 0.0f, false, {}, {}, 0},
        {"chaos", BlendMethod::chaos, 0.5f, 0.0f, false, {}, {}, 0},
        {"nearswap", BlendMethod::nearswap, 0.001f, 0.0f, false, {}, {}, 0},
        {"pick", BlendMethod::pick, 0.5f, 0.0f, false, {}, {}, 0},
        {"pick 2 9", BlendMethod::pick, 0.5f, 0.0f, false, {}, {}, 2},
        {"pick -1", BlendMethod::pick, 0.5f, 0.0f, false, {}, {}, -1},
    };
    for (const MethodCase& c : cases) {
        SCOPED_TRACE(c.expression);
        const MethodSpec spec = spec_of(c.expression);
        EXPECT_EQ(spec.method, c.method);
        EXPECT_EQ(spec.t, c.t);
        EXPECT_EQ(spec.t_end, c.t_end);
        EXPECT_EQ(spec.scheduled, c.scheduled);
        EXPECT_EQ(spec.weights, c.weights);
        EXPECT_EQ(spec.weights_end, c.weights_end);
        EXPECT_EQ(spec.pick, c.pick);
        EXPECT_EQ(spec.text, c.expression);
        EXPECT_STREQ(method_word(spec.method), words(c.expression)[0].c_str());
    }
}

TEST(MethodExpression, Failures) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"slerp >0.8", "stof"},
        {"slerp 0.2>", "stof"},
        {"ties 0.5 1,x", "stof"},
        {"pick x", "stoi"},
        {"pick 99999999999", "stoi"},
        {"SLERP 0.5", "unknown method 'SLERP' in: SLERP 0.5"},
        {"blend", "unknown method 'blend' in: blend"},
    };
    for (const auto& [expression, message] : cases) {
        EXPECT_EQ(failure_of([&] { spec_of(expression); }), message) << expression;
    }
    EXPECT_EQ(failure_of([] {
                  parse_method({"layers", "0-3"}, 2, "layers 0-3");
              }),
              "missing method in: layers 0-3");
}

TEST(MethodExpression, FloatListSkipsEmptyItems) {
    EXPECT_EQ(parse_float_list(""), std::vector<float>{});
    EXPECT_EQ(parse_float_list(",,"), std::vector<float>{});
    EXPECT_EQ(parse_float_list("1,,2"), (std::vector<float>{1, 2}));
    EXPECT_EQ(parse_float_list(",1,2,"), (std::vector<float>{1, 2}));
    EXPECT_EQ(parse_float_list("0.5x,-2e1"), (std::vector<float>{0.5f, -20.0f}));
}

TEST(OutTypeWords, TableAndCaseFolding) {
    struct Row {
        std::string word;
        int32_t type;
        bool keep;
        int32_t file_type;
    };
    const std::vector<Row> rows = {
        {"f32", 0, false, 0},   {"F16", 1, false, 1},    {"bf16", 30, false, 32},
        {"Q8_0", 8, false, 7},  {"q6_k", 14, false, 18}, {"q5_K", 13, false, 17},
        {"q5_0", 6, false, 8},  {"q4_k", 12, false, 15}, {"q4_0", 2, false, 2},
        {"Keep", 43, true, -1},
    };
    for (const Row& r : rows) {
        const OutType out = parse_out_type(r.word);
        EXPECT_EQ(out.type, r.type) << r.word;
        EXPECT_EQ(out.keep, r.keep) << r.word;
        EXPECT_EQ(out.file_type, r.file_type) << r.word;
    }
    EXPECT_EQ(failure_of([] { parse_out_type("Q4_K_M"); }), "unknown out type 'Q4_K_M'");
    EXPECT_EQ(failure_of([] { parse_out_type(""); }), "unknown out type ''");
}

TEST(NumberReading, FloatsAtTheirLimits) {
    const float inf = std::numeric_limits<float>::infinity();
    const std::vector<std::pair<std::string, float>> good = {
        {"0.5x", 0.5f},
        {".5", 0.5f},
        {"+2e3", 2000.0f},
        {"0x1.8p1", 3.0f},
        {"-inf", -inf},
        {"Infinity", inf},
        {"0x1p-149", 0x1p-149f},  // exactly representable subnormal: no range error
        {"3.4028235e38", std::numeric_limits<float>::max()},
        {"1.5>2", 1.5f},
    };
    for (const auto& [text, value] : good) {
        EXPECT_EQ(read_float(text), value) << text;
    }
    EXPECT_TRUE(std::isnan(read_float("nan")));
    EXPECT_TRUE(std::isnan(read_float("-NAN(abc)")));
    for (const std::string text :
         {"", "x1", ">1", "1e39", "3.5e38", "-1e39", "1e-40", "1e-50", "0x1p-150", "0x1p128"}) {
        EXPECT_EQ(failure_of([&] { read_float(text); }), "stof") << text;
    }
}

TEST(NumberReading, IntegersAtTheirLimits) {
    const std::vector<std::pair<std::string, int32_t>> good = {
        {"2147483647", INT32_MAX},
        {"-2147483648", INT32_MIN},
        {"12abc", 12},
        {"+7", 7},
        {"0x10", 0},
        {"-0", 0},
    };
    for (const auto& [text, value] : good) {
        EXPECT_EQ(read_int(text), value) << text;
    }
    for (const std::string text :
         {"", "x", "-", "2147483648", "-2147483649", "99999999999", "99999999999999999999999"}) {
        EXPECT_EQ(failure_of([&] { read_int(text); }), "stoi") << text;
    }
}

TEST(NumberReading, UnsignedAtTheirLimits) {
    const std::vector<std::pair<std::string, uint64_t>> good = {
        {"18446744073709551615", UINT64_MAX},
        {"-1", UINT64_MAX},
        {"-18446744073709551615", 1},
        {"12abc", 12},
        {"0", 0},
    };
    for (const auto& [text, value] : good) {
        EXPECT_EQ(read_u64(text), value) << text;
    }
    for (const std::string text :
         {"", "abc", "18446744073709551616", "99999999999999999999999", "-18446744073709551616"}) {
        EXPECT_EQ(failure_of([&] { read_u64(text); }), "stoull") << text;
    }
}

// A comma-decimal process locale must not change how recipes read or how
// generated recipes print their numbers.
TEST(NumberReading, FloatsIgnoreTheProcessLocale) {
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    const char* found = nullptr;
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "de_DE"}) {
        if (std::setlocale(LC_ALL, name)) {
            found = name;
            break;
        }
    }
    if (!found) {
        GTEST_SKIP() << "no comma-decimal locale installed";
    }
    const float half = read_float("0.5");
    const std::vector<float> list = parse_float_list("1.25,0.75");
    const std::string generated = random_recipe(2, 40, 2026, "q4_k");
    std::setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(half, 0.5f);
    EXPECT_EQ(list, (std::vector<float>{1.25f, 0.75f}));
    EXPECT_EQ(generated, random_recipe(2, 40, 2026, "q4_k"));
}

}  // namespace
}  // namespace tevrin
