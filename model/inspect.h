// One-line JSON report about a GGUF file, from its header alone.
//
// Never throws for a bad file: anything that does not parse as GGUF gives
// {"ok":false,"error":"not a valid GGUF file"}. With `with_tensors` the report
// adds the first 4000 tensors as [name, type, shape].
//
// Threads: reads one file; calls on any threads are independent.
#pragma once

#include <string>

namespace tevrin {

std::string inspect_json(const std::string& path, bool with_tensors);

// Escapes text for use between the double quotes of a JSON string.
std::string json_escape(const std::string& text);

}  // namespace tevrin
