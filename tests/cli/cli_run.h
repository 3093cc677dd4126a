// Runs the built tool as a user would and reads what it printed; shared by the
// command-line tests. Plain functions without state, safe from any thread.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/gguf_builder.h"

namespace tevrin::testing {

inline CommandResult fuse_cli(const std::string& args) {
    return run_command(shell_quote(fuse_exe()) + " " + args);
}

// For EXPECT_PRED2, which prints both texts when the part is missing.
inline bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline std::string line_with(const std::string& text, const std::string& part) {
    for (const std::string& line : lines_of(text)) {
        if (has(line, part)) {
            return line;
        }
    }
    return "";
}

}  // namespace tevrin::testing
