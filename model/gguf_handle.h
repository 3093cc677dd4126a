// Owning handles for ggml's C objects, and the switch that keeps ggml quiet.
//
// Threads: a handle is owned by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include <ggml.h>
#include <gguf.h>

namespace tevrin {

struct GgufFree {
    void operator()(gguf_context* ctx) const { gguf_free(ctx); }
};
struct GgmlFree {
    void operator()(ggml_context* ctx) const { ggml_free(ctx); }
};

using GgufHandle = std::unique_ptr<gguf_context, GgufFree>;
using GgmlHandle = std::unique_ptr<ggml_context, GgmlFree>;

// Parses only the header of a GGUF file: no ggml context, no tensor data.
// Returns an empty handle for a missing, unreadable or invalid file, for a path
// that names no regular file (it is never opened), for keys that are empty or
// repeated when read up to a NUL byte, and for a tensor whose dimensions
// multiply, zeros counted as 1, to more than 2^60.
GgufHandle read_gguf_header(const char* path);

// An empty GGUF context whose data alignment is `alignment` (a power of two),
// with the key general.alignment set to it. ggml's own empty context always lays
// tensors out at 32 bytes, whatever key is later copied into it.
GgufHandle empty_gguf_with_alignment(uint32_t alignment);

// Replaces ggml's logger by one that prints nothing: the tool's streams carry only
// what its interface says. Idempotent and cheap; every entry point that may call
// ggml calls it first.
void silence_ggml_log();

// The string value of `key`, or `fallback` when the key is missing or holds
// another type. Never calls a getter of the wrong type.
const char* gguf_string_or(const gguf_context* ctx, const char* key, const char* fallback);

}  // namespace tevrin
