// A fresh folder for a benchmark's models and outputs, removed with everything
// in it when the benchmark ends.
//
// Threads: owned by the benchmark's main thread.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tevrin {

struct TempDir {
    std::filesystem::path path;

    explicit TempDir(const std::filesystem::path& parent) {
        std::string pattern = (parent / "tevrin-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temp folder in " + parent.string());
        }
        path = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace tevrin
