// The inspection report on arbitrary bytes, with and without the tensor list:
// it never throws and is always one strict JSON value.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/temp_files.h"
#include "model/inspect.h"
#include "tests/model/json_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = tevrin::fuzzing::write_scratch("inspect.gguf", data, size);
    for (const bool with_tensors : {false, true}) {
        const std::string report = tevrin::inspect_json(path, with_tensors);
        if (!tevrin::testing::is_valid_json(report) || report.find('\n') != std::string::npos) {
            std::abort();
        }
    }
    return 0;
}
