// A whole fusion run on arbitrary input, with two worker threads.
//
// Input layout: a 32-bit little-endian length, that many bytes of the base file,
// another length and the donor file, then the recipe text to the end. Lengths
// are clamped to what is left; an empty donor makes a one-source run. A success
// must leave a GGUF file holding every planned tensor; a failure must leave no
// file; progress never falls and stays within 0 to 1.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuse/fuse.h"
#include "fuzz/temp_files.h"
#include "model/gguf_handle.h"

namespace {

struct Reader {
    const uint8_t* data;
    size_t size;
    size_t pos = 0;

    size_t left() const { return size - pos; }
    size_t take_length() {
        uint32_t n = 0;
        const size_t k = left() < 4 ? left() : 4;
        std::memcpy(&n, data + pos, k);
        pos += k;
        return n < left() ? n : left();
    }
};

void check_output(const tevrin::FuseResult& result, const std::string& out) {
    if (!result.ok) {
        if (access(out.c_str(), F_OK) == 0) {
            std::abort();
        }
        return;
    }
    const tevrin::GgufHandle header = tevrin::read_gguf_header(out.c_str());
    if (!header || gguf_get_n_tensors(header.get()) != result.tensors) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using tevrin::fuzzing::write_scratch;
    Reader in{data, size};
    const size_t base_size = in.take_length();
    std::vector<std::string> sources = {write_scratch("base.gguf", data + in.pos, base_size)};
    in.pos += base_size;
    const size_t donor_size = in.take_length();
    if (donor_size > 0) {
        sources.push_back(write_scratch("donor.gguf", data + in.pos, donor_size));
    }
    in.pos += donor_size;
    const std::string recipe(reinterpret_cast<const char*>(data) + in.pos, in.left());

    const std::string out = tevrin::fuzzing::scratch_file("out.gguf");
    unlink(out.c_str());
    float last = 0.0f;
    const auto progress = [&last](const tevrin::FuseProgress& p) {
        if (!(p.fraction >= last && p.fraction <= 1.0f)) {
            std::abort();
        }
        last = p.fraction;
    };
    check_output(tevrin::fuse(sources, recipe, out, 2, nullptr, progress), out);
    return 0;
}
