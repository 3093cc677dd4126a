#include "model/imatrix.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "model/source_model.h"

namespace tevrin {

namespace {

const std::string kSumsSuffix = ".in_sum2";
const std::string kCountsSuffix = ".counts";

[[noreturn]] void not_a_matrix(const std::string& path) {
    throw std::runtime_error("not an importance matrix: " + path);
}

bool strip_suffix(std::string& name, const std::string& suffix) {
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return false;
    }
    name.resize(name.size() - suffix.size());
    return true;
}

struct GgufEntry {
    int64_t sums = -1;
    int64_t counts = -1;
};

std::vector<float> f32_values(const SourceModel& m, int64_t tensor) {
    if (tensor_type(m, tensor) != GGML_TYPE_F32) {
        not_a_matrix(m.path);
    }
    std::vector<float> values(tensor_size(m, tensor) / sizeof(float));
    std::memcpy(values.data(), tensor_data(m, tensor), values.size() * sizeof(float));
    return values;
}

// Each matrix's sums are divided by its count, the count rounded to a whole number
// first, as the file's writer stored a whole number as a float.
std::vector<float> mean_of(const std::vector<float>& sums, const std::vector<float>& counts,
                           const std::string& path) {
    if (counts.empty() || sums.size() % counts.size() != 0) {
        not_a_matrix(path);
    }
    const size_t columns = sums.size() / counts.size();
    std::vector<float> values(sums.size());
    for (size_t m = 0; m < counts.size(); ++m) {
        const float count = float(std::llround(counts[m]));
        for (size_t i = m * columns; i < (m + 1) * columns; ++i) {
            values[i] = count > 0.0f ? sums[i] / count : 1.0f;
        }
    }
    return values;
}

void read_gguf_form(const std::string& path, ImportanceMatrix& matrix) {
    SourceModel file;
    try {
        file.open(path);
    } catch (const std::runtime_error&) {
        not_a_matrix(path);
    }
    std::map<std::string, GgufEntry> found;
    const int64_t n = tensor_count(file);
    for (int64_t i = 0; i < n; ++i) {
        std::string name = tensor_name(file, i);
        if (strip_suffix(name, kSumsSuffix)) {
            found[name].sums = i;
        } else if (strip_suffix(name, kCountsSuffix)) {
            found[name].counts = i;
        }
    }
    if (found.empty()) {
        not_a_matrix(path);
    }
    for (const auto& [name, entry] : found) {
        if (entry.sums < 0 || entry.counts < 0) {
            not_a_matrix(path);
        }
        matrix.entries[name] =
            mean_of(f32_values(file, entry.sums), f32_values(file, entry.counts), path);
    }
}

// Bounds-checked reads over the whole binary file.
struct Reader {
    const std::string& bytes;
    const std::string& path;
    size_t at = 0;

    void take(void* dest, size_t size) {
        if (size > bytes.size() - at) {
            not_a_matrix(path);
        }
        std::memcpy(dest, bytes.data() + at, size);
        at += size;
    }
    int32_t i32() {
        int32_t value = 0;
        take(&value, sizeof value);
        return value;
    }
};

void read_binary_form(const std::string& bytes, const std::string& path, ImportanceMatrix& matrix) {
    Reader in{bytes, path};
    const int32_t count = in.i32();
    if (count < 1) {
        not_a_matrix(path);
    }
    for (int32_t e = 0; e < count; ++e) {
        const int32_t length = in.i32();
        if (length < 1 || size_t(length) > bytes.size() - in.at) {
            not_a_matrix(path);
        }
        std::string name(size_t(length), '\0');
        in.take(name.data(), name.size());
        name.resize(std::strlen(name.c_str()));  // the writer's reader stops at a NUL
        const int32_t calls = in.i32();
        const int32_t values = in.i32();
        if (values < 1 || size_t(values) > (bytes.size() - in.at) / sizeof(float)) {
            not_a_matrix(path);
        }
        std::vector<float> sums(static_cast<size_t>(values));
        in.take(sums.data(), sums.size() * sizeof(float));
        if (calls > 0) {
            for (float& v : sums) {
                v /= float(calls);
            }
        }
        matrix.entries[name] = std::move(sums);
    }
}

bool is_regular_file(const std::string& path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

ImportanceMatrix read_importance_matrix(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!is_regular_file(path) || !in) {
        throw std::runtime_error("cannot read importance matrix " + path);
    }
    ImportanceMatrix matrix;
    matrix.path = path;
    char magic[4] = {};
    in.read(magic, sizeof magic);
    if (in.gcount() == 4 && std::memcmp(magic, "GGUF", 4) == 0) {
        in.close();
        read_gguf_form(path, matrix);
    } else {
        in.seekg(0);
        in.clear();
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        read_binary_form(bytes, path, matrix);
    }
    for (const auto& [name, values] : matrix.entries) {
        for (float v : values) {
            if (!std::isfinite(v)) {
                throw std::runtime_error("importance matrix entry " + name + " is not finite");
            }
        }
    }
    return matrix;
}

}  // namespace tevrin
