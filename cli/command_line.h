// The program's command line: scanning the arguments, settling the recipe text,
// and running one of the three modes (--inspect report, --dry print, fusion run).
//
// Usage failures print the usage line to stderr and give status 1; a failed
// fusion gives 2; everything else 0. The recipe text is never parsed here.
//
// Threads: runs on the main thread; the fusion it starts makes its own workers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuse/fuse.h"

namespace tevrin {

extern const char* const kUsageLine;
extern const char* const kCompareUsageLine;

struct CommandLine {
    std::string recipe_text;
    std::string output_path;
    std::string out_type = "q8_0";  // only read when a recipe is generated
    std::string imatrix_path;       // --imatrix; empty for none
    std::vector<std::string> sources;
    int64_t seed = -1;  // 0 or more turns recipe generation on
    bool dry = false;
    bool inspect = false;  // the scan stopped at --inspect <inspect_path>
    std::string inspect_path;
    bool help = false;              // the scan stopped at -h / --help
    bool version = false;           // the scan stopped at --version
    int threads = 0;                // -t / --threads; 0 uses all cores
    std::string usage_error;        // a value the scan refused, e.g. "invalid thread count 'x'"
    bool tensors = false;           // the scan stopped at --tensors <inspect_path>
    bool plan = false;              // --plan: report what the run would do, write nothing
    bool json = false;              // --json: the plan report as JSON lines
    std::string unreadable_recipe;  // the -r file the recipe text came from, if unreadable
    bool compare = false;           // --compare: the sources are compared, nothing is written
    std::string svg_path;           // --svg <path>, a compare option
    bool fusion_options = false;    // -r, -e, --random, --type, -o or --dry was given
    SplitLimits split;              // --split-max-size, --split-max-tensors
};

// Scans the arguments after the program name, in order; an option that needs a
// value but stands last is a source path. `-r` reads the whole file, or gives an
// empty text when it cannot be read (and names the file in unreadable_recipe).
// `--inspect`, `--tensors`, `-h`/`--help` and `--version` end the scan. A thread
// count must be a whole number from 0 to 1024.
CommandLine scan_command_line(const std::vector<std::string>& args);

// The layer count for a generated recipe: the number behind the first
// "n_layer":" in an inspection report, or 16 when the report has none.
int32_t report_layer_count(const std::string& report);

// Runs the whole program and returns its exit status. SIGPIPE is ignored: a
// reader that goes away makes a failed run (status 2), not a silent death. During
// a run SIGINT, SIGTERM and SIGHUP cancel it at the next chunk or tensor (status
// 2, "FAILED: cancelled", the normal summary); a second one ends the program at
// once, removing the unfinished temporary file. SIGBUS (a source cut short under
// the mapping) prints "FAILED: source data unreadable (a source file cut short
// during the run?)", removes the temporary file, and exits with status 2.
int run_command_line(int argc, char** argv);

}  // namespace tevrin
