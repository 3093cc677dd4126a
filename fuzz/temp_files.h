// Scratch files of a fuzzer process: one private folder, made on first use and
// removed at exit, so parallel fuzzer jobs never share a path.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace tevrin::fuzzing {

struct ScratchDir {
    std::string path;
    ScratchDir() {
        path = (std::filesystem::temp_directory_path() / "tevrin-fuzz-XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr) {
            std::abort();
        }
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

inline const std::string& scratch_dir() {
    static const ScratchDir dir;
    return dir.path;
}

inline std::string scratch_file(const std::string& name) {
    return scratch_dir() + "/" + name;
}

// Writes the bytes to a fresh scratch file and returns its path.
inline std::string write_scratch(const std::string& name, const uint8_t* data, size_t size) {
    const std::string path = scratch_file(name);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr || (size > 0 && std::fwrite(data, 1, size, f) != size) ||
        std::fclose(f) != 0) {
        std::abort();
    }
    return path;
}

}  // namespace tevrin::fuzzing
