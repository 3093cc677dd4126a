#include "fuse/output_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "model/source_model.h"

namespace tevrin {
namespace {

// The temporary files being written, for a signal handler that must remove them
// without locks or allocation. Slots are never freed, only reused, so a handler
// can walk the list at any moment.
struct TempSlot {
    std::atomic<int> state{0};  // kFree, kClaimed (path being written), kLive
    char path[PATH_MAX] = {};
    TempSlot* next = nullptr;
};
constexpr int kFree = 0, kClaimed = 1, kLive = 2;
std::atomic<TempSlot*> g_temp_slots{nullptr};

TempSlot* claim_temp_slot() {
    for (TempSlot* slot = g_temp_slots.load(); slot != nullptr; slot = slot->next) {
        int expected = kFree;
        if (slot->state.compare_exchange_strong(expected, kClaimed)) {
            return slot;
        }
    }
    auto* slot = new TempSlot;
    slot->state = kClaimed;
    slot->next = g_temp_slots.load();
    while (!g_temp_slots.compare_exchange_weak(slot->next, slot)) {
    }
    return slot;
}

void register_temp(const std::string& path) {
    if (path.size() >= PATH_MAX) {
        return;  // open() has already refused such a path
    }
    TempSlot* slot = claim_temp_slot();
    std::memcpy(slot->path, path.c_str(), path.size() + 1);
    slot->state = kLive;
}

void unregister_temp(const std::string& path) {
    for (TempSlot* slot = g_temp_slots.load(); slot != nullptr; slot = slot->next) {
        if (slot->state.load() == kLive && path == slot->path) {
            slot->state = kFree;
            return;
        }
    }
}

std::string dir_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file a chain of symbolic links ends at (the path itself when it is no
// link); a dangling link gives the path it points to, which is then created.
std::string link_target(const std::string& path) {
    std::string at = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st = {};
        if (lstat(at.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            return at;
        }
        std::vector<char> buffer(PATH_MAX + 1);
        const ssize_t n = readlink(at.c_str(), buffer.data(), PATH_MAX);
        if (n <= 0) {
            return at;
        }
        const std::string to(buffer.data(), size_t(n));
        at = to[0] == '/' ? to : dir_of(at) + "/" + to;
    }
    return at;  // a loop: opening it fails like any unreadable path
}

// Paths under /dev and /proc name streams and descriptors (/dev/stdout,
// /proc/self/fd/1) even where they lead to a regular file: never replaced.
bool special_path(const std::string& path) {
    return path.rfind("/dev/", 0) == 0 || path.rfind("/proc/", 0) == 0;
}

bool write_in_place(const std::string& path, const std::string& target) {
    if (special_path(path) || special_path(target)) {
        return true;
    }
    struct stat st = {};
    return stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode);
}

int open_temp(OutputStream& out) {
    out.temp_path = dir_of(out.target) + "/." + base_of(out.target) + ".tevrin-" +
                    std::to_string(getpid()) + ".tmp";
    const int fd = open(out.temp_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        out.temp_path.clear();
        return -1;
    }
    register_temp(out.temp_path);
    struct stat made = {};
    if (fstat(fd, &made) == 0) {
        out.temp_dev = made.st_dev;
        out.temp_ino = made.st_ino;
    }
    // A file that is replaced keeps its permissions, as it would when rewritten.
    struct stat st = {};
    if (stat(out.target.c_str(), &st) == 0) {
        fchmod(fd, st.st_mode & 07777);
    }
    return fd;
}

void sync_directory(const std::string& dir) {
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

}  // namespace

void open_output(OutputStream& out, const std::string& path) {
    out.path = path;
    out.target = link_target(path);
    const bool in_place = write_in_place(path, out.target);
    out.fd = in_place ? open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)
                      : open_temp(out);
    if (out.fd < 0) {
        discard_output(out);
        throw std::runtime_error("cannot write " + path);
    }
    try {
        out.writer = std::make_unique<OutputWriter>();
        start_writer(*out.writer, out.fd, kStreamBufferBytes, !in_place);
    } catch (...) {
        discard_output(out);
        throw;
    }
}

void write_bytes(OutputStream& out, const void* data, size_t size) {
    writer_append(*out.writer, data, size);
    out.written += size;
}

void write_zeros(OutputStream& out, uint64_t count) {
    static const uint8_t zeros[4096] = {};
    while (count > 0) {
        const size_t piece = size_t(std::min<uint64_t>(count, sizeof zeros));
        write_bytes(out, zeros, piece);
        count -= piece;
    }
}

void copy_file_bytes(OutputStream& out, int fd, uint64_t offset, const uint8_t* mapped,
                     size_t size) {
    OutputWriter& writer = *out.writer;
    // A copy inside the kernel must wait for the bytes before it to reach the
    // file; for less than a buffer's half, appending from the mapping is quicker.
    if (size < writer.capacity) {
        writer_append(writer, mapped, size);
        release_pages(mapped, size);
        out.written += size;
        return;
    }
    writer_drain(writer);
    loff_t from = loff_t(offset);
    size_t left = size;
    while (left > 0 && !writer_failed(writer)) {
        const ssize_t n = copy_file_range(fd, &from, out.fd, nullptr, left, 0);
        if (n <= 0) {
            break;
        }
        left -= size_t(n);
    }
    writer_skip(writer, size - left);
    if (left > 0) {
        const uint8_t* rest = mapped + (size - left);
        writer_append(writer, rest, left);
        release_pages(rest, left);
    }
    out.written += size;
}

void check_output(const OutputStream& out) {
    if (writer_failed(*out.writer)) {
        throw std::runtime_error("write error (disk full?)");
    }
}

void finish_output(OutputStream& out) {
    writer_drain(*out.writer);
    bool ok = !writer_failed(*out.writer);
    out.writer.reset();
    // A pipe or a device cannot be synced; only a file that is renamed must be.
    if (ok && !out.temp_path.empty()) {
        ok = fsync(out.fd) == 0;
    }
    ok = close(out.fd) == 0 && ok;
    out.fd = -1;
    if (!ok) {
        throw std::runtime_error("write error (disk full?)");
    }
}

void commit_output(OutputStream& out) {
    if (out.temp_path.empty()) {
        return;
    }
    if (std::rename(out.temp_path.c_str(), out.target.c_str()) != 0) {
        throw std::runtime_error("cannot write " + out.path);
    }
    unregister_temp(out.temp_path);
    out.temp_path.clear();
    out.committed = true;
    sync_directory(dir_of(out.target));
}

void discard_output(OutputStream& out) {
    out.writer.reset();
    if (out.fd >= 0) {
        close(out.fd);
        out.fd = -1;
    }
    if (!out.temp_path.empty()) {
        unlink(out.temp_path.c_str());
        unregister_temp(out.temp_path);
        out.temp_path.clear();
    }
}

void write_output_file(const std::string& path, const std::function<void(OutputStream&)>& write) {
    OutputStream out;
    try {
        open_output(out, path);
        write(out);
        finish_output(out);
        commit_output(out);
    } catch (...) {
        discard_output(out);
        throw;
    }
}

void withdraw_output(OutputStream& out) {
    struct stat st = {};
    if (out.committed && lstat(out.target.c_str(), &st) == 0 && st.st_dev == out.temp_dev &&
        st.st_ino == out.temp_ino) {
        unlink(out.target.c_str());
    }
    out.committed = false;
}

void discard_output_from_signal() {
    for (TempSlot* slot = g_temp_slots.load(); slot != nullptr; slot = slot->next) {
        if (slot->state.load() == kLive) {
            unlink(slot->path);
        }
    }
}

}  // namespace tevrin
