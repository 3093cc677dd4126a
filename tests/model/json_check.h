// A strict JSON syntax check for the reports: one value and nothing after it, no raw
// control bytes in strings, only JSON's escapes. Bytes from 0x80 up pass as they are.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace tevrin::testing {

struct JsonCheck {
    std::string_view s;
    size_t i = 0;

    bool eat_any(std::string_view set) { return i < s.size() && set.find(s[i]) != set.npos && ++i; }
    bool eat(char c) { return eat_any(std::string_view(&c, 1)); }
    bool word(std::string_view w) { return s.substr(i, w.size()) == w && (i += w.size()); }
    bool digits() {
        const size_t start = i;
        i = std::min(s.find_first_not_of("0123456789", i), s.size());
        return i > start;
    }
    bool value() {
        if (eat('{') || eat('[')) {
            return members(s[i - 1] == '{' ? '}' : ']', s[i - 1] == '{');
        }
        return s.substr(i, 1) == "\"" ? string()
                                      : word("true") || word("false") || word("null") || number();
    }
    bool members(char close, bool keyed) {
        if (eat(close)) {
            return true;
        }
        while ((!keyed || (string() && eat(':'))) && value()) {
            if (!eat(',')) {
                return eat(close);
            }
        }
        return false;
    }
    bool string() {
        bool ok = eat('"');
        while (ok && i < s.size() && s[i] != '"') {
            const auto c = static_cast<unsigned char>(s[i++]);
            ok = c >= 0x20 && (c != '\\' || escape());
        }
        return ok && eat('"');
    }
    bool escape() {
        const std::string_view hex = "0123456789abcdefABCDEF";
        return eat_any("\"\\/bfnrt") ||
               (eat('u') && eat_any(hex) && eat_any(hex) && eat_any(hex) && eat_any(hex));
    }
    bool number() {
        eat('-');
        const bool whole = eat('0') || digits();
        const bool fraction = !eat('.') || digits();
        const bool exponent = !eat_any("eE") || ((eat_any("+-") || true) && digits());
        return whole && fraction && exponent;
    }
};

inline bool is_valid_json(const std::string& text) {
    JsonCheck check{text};
    return check.value() && check.i == text.size();
}

}  // namespace tevrin::testing
