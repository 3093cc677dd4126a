// The --compare mode: compares the sources, writes the picture when asked, and
// prints the table (or the JSON lines) on standard output with the progress line
// on standard error. Returns 0, or 2 after printing "FAILED: <message>".
#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace tevrin {

// `threads` 0 uses all cores; `svg_path` empty: no picture. The picture must not
// name one of the sources.
int run_compare(const std::vector<std::string>& sources, int threads, bool json,
                const std::string& svg_path, const std::atomic<bool>* cancel);

}  // namespace tevrin
