// The records of a parsed recipe and the small language of method expressions.
//
// Everything here is a plain value: a Recipe is made once per run by parse_recipe
// and never changed afterwards; a MethodSpec is copied wherever a rule is applied.
//
// Threads: plain values; a Recipe is shared read-only across a run's threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tevrin {

enum class BlendMethod : int32_t {
    linear = 0,
    slerp = 1,
    ties = 2,
    dare = 3,
    pick = 4,
    chaos = 5,
    task = 6,
    breadcrumbs = 7,
    della = 8,
    median = 9,
    nearswap = 10,
    model_stock = 11,
    sce = 12,
    karcher = 13,
    multislerp = 14,
    nuslerp = 15,
};

// The number of methods: the last enumerator + 1, so it moves with the enum.
inline constexpr int32_t kMethodCount = int32_t(BlendMethod::nuslerp) + 1;

// A named mix: a per-tensor choice of types by role, layer and model geometry,
// as the usual quantizer makes it for the file type of the same name.
enum class QuantMix : int32_t {
    none = 0,
    q2_k_s,
    q3_k_s,
    q3_k_m,
    q3_k_l,
    q4_k_s,
    q4_k_m,
    q5_k_s,
    q5_k_m,
};

// Output tensor type of a run. `type` is a ggml type number and means nothing
// while `keep` is true (it then holds 43, which must never reach ggml). For a mix,
// `type` is the mix's main type and the per-tensor choice is made later.
struct OutType {
    int32_t type = 8;
    bool keep = false;
    int32_t file_type = 7;  // general.file_type value; -1 leaves the base's key alone
    QuantMix mix = QuantMix::none;
    bool needs_matrix = false;  // only made with an importance matrix (--imatrix)
};

// One method expression such as "slerp 0.2>0.8" or "ties 0.5 1,0.5".
struct MethodSpec {
    BlendMethod method = BlendMethod::linear;
    std::vector<float> weights;  // by source index; may be shorter or longer than the sources
    float t = 0.5f;
    std::vector<float> weights_end;  // end of a schedule
    float t_end = 0.0f;              // end of a schedule
    bool scheduled = false;          // a '>' stood in the scalar or in the weight list
    // The points between the start and the end of a schedule of three or more
    // points ("0.2>0.9>0.2"), in order; empty for a plain two-point schedule.
    std::vector<float> t_inner;
    std::vector<std::vector<float>> weights_inner;
    int32_t pick = 0;
    std::string text;  // the recipe line, for messages
    int32_t line = 0;  // its line number; 0 for the built-in default
};

struct LayerRule {
    int32_t first = 0;
    int32_t last = 0;
    MethodSpec spec;
};

struct TensorRule {
    std::string pattern;
    MethodSpec spec;
};

// "type <glob> <word>": the output type of the matching tensors, after `out` and
// the mix rules; among these the last match wins.
struct TypeRule {
    std::string pattern;
    OutType out;
    std::string text;  // the recipe line, for messages
};

// One output layer of a stack: layer `layer` of source `source`.
struct StackSlice {
    int32_t source = 0;
    int32_t layer = 0;
};

struct Recipe {
    std::string name = "Tevrin Blend";
    OutType out;
    uint64_t seed = 42;
    MethodSpec default_spec;
    std::vector<LayerRule> layer_rules;
    std::vector<TensorRule> tensor_rules;
    std::vector<TypeRule> type_rules;
    std::vector<StackSlice> stack;  // empty: the output keeps the base's layers
};

// Looks a type word up case-insensitively in the table of recipe/type_words.h
// (plain types, "keep" and the named mixes).
// Throws std::invalid_argument("unknown out type '<word>'").
OutType parse_out_type(const std::string& word);

// "1,,2," -> {1, 2}. Empty items are skipped; each item is read by read_float.
std::vector<float> parse_float_list(const std::string& text);

// Reads the method expression that starts at tokens[position]; `text` is the whole
// line and becomes MethodSpec::text. Throws "missing method in: <text>",
// "unknown method '<word>' in: <text>", "stof" or "stoi". When `warnings` is set,
// what was read leniently (text behind a number, tokens no place takes, a
// "name=value" argument) is appended to it, without a line prefix; the result is
// the same either way.
MethodSpec parse_method(const std::vector<std::string>& tokens, size_t position,
                        const std::string& text, std::vector<std::string>* warnings = nullptr);

// Number readers with strtof / strtol / strtoull tolerance: leading space and a
// sign pass, anything behind the number is ignored. They fail only on text without
// a number or on a range error, with the bare messages "stof", "stoi" (also for
// values outside 32 bits) and "stoull" (a leading minus gives the two's complement).
// Floats are always read in the C locale.
float read_float(const std::string& text);
int32_t read_int(const std::string& text);
uint64_t read_u64(const std::string& text);

// The same readers, also giving the text behind the number in `rest` ("" when the
// whole text was a number). The value is the same as without `rest`.
float read_float(const std::string& text, std::string& rest);
int32_t read_int(const std::string& text, std::string& rest);
uint64_t read_u64(const std::string& text, std::string& rest);

}  // namespace tevrin
