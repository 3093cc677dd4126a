#include "fuse/output_stream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "model/source_model.h"

namespace tevrin {

void open_output(OutputStream& out, const std::string& path) {
    out.path = path;
    out.stream = std::fopen(path.c_str(), "wb");
    if (out.stream == nullptr) {
        throw std::runtime_error("cannot write " + path);
    }
    struct stat st = {};
    if (fstat(fileno(out.stream), &st) == 0 && S_ISREG(st.st_mode)) {
        out.removable = true;
        out.dev = st.st_dev;
        out.ino = st.st_ino;
    }
    // One buffer per calling thread, kept for the thread's life.
    thread_local std::vector<char> buffer(kStreamBufferBytes);
    std::setvbuf(out.stream, buffer.data(), _IOFBF, buffer.size());
}

void write_bytes(OutputStream& out, const void* data, size_t size) {
    std::fwrite(data, 1, size, out.stream);
    out.written += size;
}

void write_zeros(OutputStream& out, uint64_t count) {
    static const uint8_t zeros[64] = {};
    while (count > 0) {
        const size_t piece = size_t(std::min<uint64_t>(count, sizeof zeros));
        write_bytes(out, zeros, piece);
        count -= piece;
    }
}

void copy_file_bytes(OutputStream& out, int fd, uint64_t offset, const uint8_t* mapped,
                     size_t size) {
    std::fflush(out.stream);
    loff_t from = loff_t(offset);
    size_t left = size;
    while (left > 0) {
        const ssize_t n = copy_file_range(fd, &from, fileno(out.stream), nullptr, left, 0);
        if (n <= 0) {
            break;
        }
        left -= size_t(n);
    }
    if (left > 0) {
        const uint8_t* rest = mapped + (size - left);
        std::fwrite(rest, 1, left, out.stream);
        release_pages(rest, left);
    }
    out.written += size;
}

void finish_output(OutputStream& out) {
    const bool flushed = std::fflush(out.stream) == 0 && !std::ferror(out.stream);
    const bool closed = std::fclose(out.stream) == 0;
    out.stream = nullptr;
    if (!flushed || !closed) {
        throw std::runtime_error("write error (disk full?)");
    }
}

void discard_output(OutputStream& out) {
    if (out.stream != nullptr) {
        std::fclose(out.stream);
        out.stream = nullptr;
    }
    struct stat st = {};
    if (out.removable && lstat(out.path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        st.st_dev == out.dev && st.st_ino == out.ino) {
        std::remove(out.path.c_str());
    }
}

}  // namespace tevrin
