// A strict JSON syntax check for the reports: one value and nothing after it, no raw
// control bytes in strings, only JSON's escapes. Bytes from 0x80 up pass as they are.
#pragma once

#include <string>
#include <string_view>

namespace tevrin::testing {

struct JsonCheck {
    std::string_view s;
    size_t i = 0;

    bool eat(std::string_view set) { return i < s.size() && set.find(s[i]) != set.npos && ++i; }
    bool word(std::string_view w) { return s.substr(i, w.size()) == w && (i += w.size()); }
    bool digits() { return eat("0123456789") && (digits() || true); }
    bool value() {
        if (eat("{[")) {
            const bool keyed = s[i - 1] == '{';
            return eat(keyed ? "}" : "]") || items(keyed);
        }
        return s.substr(i, 1) == "\"" ? string()
                                      : word("true") || word("false") || word("null") || number();
    }
    bool items(bool keyed) {
        return (!keyed || (string() && eat(":"))) && value() &&
               (eat(keyed ? "}" : "]") || (eat(",") && items(keyed)));
    }
    bool string() {
        const std::string_view hex = "0123456789abcdefABCDEF";
        bool ok = eat("\"");
        while (ok && i < s.size() && s[i] != '"') {
            const auto c = static_cast<unsigned char>(s[i++]);
            ok = c >= 0x20 && (c != '\\' || eat("\"\\/bfnrt") ||
                               (eat("u") && eat(hex) && eat(hex) && eat(hex) && eat(hex)));
        }
        return ok && eat("\"");
    }
    bool number() {
        eat("-");
        return (eat("0") || digits()) && (!eat(".") || digits()) &&
               (!eat("eE") || (eat("+-"), digits()));
    }
};

inline bool is_valid_json(const std::string& text) {
    JsonCheck check{text};
    return check.value() && check.i == text.size();
}

}  // namespace tevrin::testing
