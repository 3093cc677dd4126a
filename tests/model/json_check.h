// A strict JSON syntax check for the reports: one value and nothing after it, no
// raw control bytes in strings, only the escapes JSON defines. Bytes from 0x80 up
// are accepted as they are.
#pragma once

#include <cctype>
#include <cstring>
#include <string>

namespace tevrin::testing {

struct JsonCheck {
    const std::string& s;
    size_t i = 0;

    bool eat(char c) { return i < s.size() && s[i] == c ? (++i, true) : false; }
    bool digits() {
        const size_t start = i;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
            ++i;
        }
        return i > start;
    }
    bool word(const char* w) {
        const size_t n = std::strlen(w);
        return s.compare(i, n, w) == 0 ? (i += n, true) : false;
    }
    bool value() {
        switch (i < s.size() ? s[i] : '\0') {
            case '{':
                return members('{', '}', true);
            case '[':
                return members('[', ']', false);
            case '"':
                return string();
            case 't':
                return word("true");
            case 'f':
                return word("false");
            case 'n':
                return word("null");
            default:
                return number();
        }
    }
    // An object or an array: zero or more comma-separated members.
    bool members(char open, char close, bool keyed) {
        eat(open);
        if (eat(close)) {
            return true;
        }
        do {
            if ((keyed && !(string() && eat(':'))) || !value()) {
                return false;
            }
        } while (eat(','));
        return eat(close);
    }
    bool string() {
        if (!eat('"')) {
            return false;
        }
        while (i < s.size()) {
            const auto c = static_cast<unsigned char>(s[i++]);
            if (c == '"') {
                return true;
            }
            if (c < 0x20 || (c == '\\' && !escape())) {
                return false;
            }
        }
        return false;
    }
    bool escape() {
        if (eat('u')) {
            for (int k = 0; k < 4; ++k, ++i) {
                if (i >= s.size() || !std::isxdigit(static_cast<unsigned char>(s[i]))) {
                    return false;
                }
            }
            return true;
        }
        return i < s.size() && s[i] != '\0' && std::strchr("\"\\/bfnrt", s[i++]) != nullptr;
    }
    bool number() {
        eat('-');
        if ((!eat('0') && !digits()) || (eat('.') && !digits())) {
            return false;
        }
        if (eat('e') || eat('E')) {
            if (!eat('+')) {
                eat('-');
            }
            return digits();
        }
        return true;
    }
};

inline bool is_valid_json(const std::string& text) {
    JsonCheck check{text};
    return check.value() && check.i == text.size();
}

}  // namespace tevrin::testing
