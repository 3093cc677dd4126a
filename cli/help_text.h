// The texts the program prints about itself: the full help of --help and the
// version lines of --version.
//
// Threads: pure; safe on any thread.
#pragma once

#include <string>

namespace tevrin {

// The whole help: usage, options, directives, methods with their arguments,
// output words, exit statuses and an example.
const char* help_text();

// "tevrin-fuse <version>" and the ggml version it was built with, one per line.
std::string version_text();

}  // namespace tevrin
