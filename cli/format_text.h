// printf into a std::string, for the reports the command line builds by hand.
//
// Threads: pure; safe on any thread.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace tevrin {

// The formatted text, cut at 511 bytes; every report line stays far below that.
[[gnu::format(printf, 1, 2)]] inline std::string text_of(const char* pattern, ...) {
    char buf[512];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(buf, sizeof buf, pattern, args);
    va_end(args);
    return buf;
}

}  // namespace tevrin
