// Runs the built tool as a user would and reads what it printed; shared by the
// command-line tests. Not thread-safe: each test runs its commands in turn.
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

// Writes a recipe of 1600 q4_k layers from a 4-layer source to `path`: a run long
// enough to be interrupted at any point a test waits for.
inline void write_long_recipe(const std::string& path) {
    std::string stack = "out q4_k\nstack";
    for (int i = 0; i < 400; ++i) {
        stack += " 0:0-3";
    }
    write_file(path, stack);
}

// Shell text that waits until the run $pid's temporary output holds more than `bytes`.
inline std::string wait_for_temp(const TempDir& dir, const std::string& out_name, uint64_t bytes) {
    return "for i in $(seq 6000); do [ $(stat -c %s " + dir.path + "/." + out_name +
           ".tevrin-$pid.tmp 2>/dev/null || echo 0) -gt " + std::to_string(bytes) +
           " ] && break; sleep 0.01; done; ";
}

}  // namespace tevrin::testing
