// Short, bounded text of a GGUF metadata value, for the inspection report.
//
// Strings over 600 bytes are cut and get "..."; arrays of at most 8 strings or 16
// other elements are listed as "[a, b]", longer ones summarised as "[<type> x N]".
// Never fails: an unknown type gives "?", a missing key the empty text.
//
// Threads: pure over a context no one writes; safe on any thread.
#pragma once

#include <cstdint>
#include <string>

#include <gguf.h>

namespace tevrin {

std::string kv_value_text(const gguf_context* gguf, int64_t id);
std::string kv_text(const gguf_context* gguf, const std::string& key);

}  // namespace tevrin
