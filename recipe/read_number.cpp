#include <locale.h>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <stdexcept>

#include "recipe/recipe.h"

namespace tevrin {
namespace {

// Floats are read in the C locale whatever the process locale says, so "0.5"
// means one half also where the decimal mark is a comma.
locale_t c_numeric_locale() {
    static const locale_t locale = newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(0));
    return locale;
}

}  // namespace

float read_float(const std::string& text) {
    std::string rest;
    return read_float(text, rest);
}

int32_t read_int(const std::string& text) {
    std::string rest;
    return read_int(text, rest);
}

uint64_t read_u64(const std::string& text) {
    std::string rest;
    return read_u64(text, rest);
}

float read_float(const std::string& text, std::string& rest) {
    const char* begin = text.c_str();
    char* end = nullptr;
    const locale_t locale = c_numeric_locale();
    errno = 0;
    const float value = locale ? strtof_l(begin, &end, locale) : std::strtof(begin, &end);
    if (end == begin) {
        throw std::invalid_argument("stof");
    }
    // ERANGE covers overflow and underflow alike.
    if (errno == ERANGE) {
        throw std::out_of_range("stof");
    }
    rest = end;
    return value;
}

int32_t read_int(const std::string& text, std::string& rest) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(begin, &end, 10);
    if (end == begin) {
        throw std::invalid_argument("stoi");
    }
    if (errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
        throw std::out_of_range("stoi");
    }
    rest = end;
    return static_cast<int32_t>(value);
}

uint64_t read_u64(const std::string& text, std::string& rest) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    // strtoull accepts a leading minus and negates in unsigned arithmetic: "-1" is 2^64 - 1.
    const unsigned long long value = std::strtoull(begin, &end, 10);
    if (end == begin) {
        throw std::invalid_argument("stoull");
    }
    if (errno == ERANGE) {
        throw std::out_of_range("stoull");
    }
    rest = end;
    return static_cast<uint64_t>(value);
}

}  // namespace tevrin
