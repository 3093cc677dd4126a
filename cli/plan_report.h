// The plan report (--plan): what a run of these sources and this recipe would
// do, tensor by tensor, without writing anything; and the warnings printed on
// standard error before a normal run. Both rest on preview_run, which plans with
// the run's own functions.
//
// Main thread only.
#pragma once

#include <string>
#include <vector>

namespace tevrin {

// Prints the report on standard output: a table by default, one JSON object per
// line with `json`. `extra_warnings` (found before parsing, such as an unreadable
// recipe file) come first among the warnings. `threads` is the run's (0: every
// core), for the memory estimate. Returns 0 when the run would succeed, 2 when
// it would fail; the last line gives the run's own message.
int print_plan_report(const std::vector<std::string>& sources, const std::string& recipe_text,
                      bool json, const std::vector<std::string>& extra_warnings, int threads);

// Prints "warning: <text>" lines on standard error for the warnings a run of
// these sources and this recipe would meet; prints nothing else, whatever fails.
// A run calls it before fusing, so that the warnings stand above the progress
// line; the preview reads headers only, which costs milliseconds even for large
// sharded sources.
void print_run_warnings(const std::vector<std::string>& sources, const std::string& recipe_text,
                        const std::vector<std::string>& extra_warnings);

}  // namespace tevrin
