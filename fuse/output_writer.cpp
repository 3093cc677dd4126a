#include "fuse/output_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tevrin {
namespace {

size_t round_down(size_t n) {
    return n / kDirectAlign * kDirectAlign;
}

size_t round_up(size_t n) {
    return round_down(n + kDirectAlign - 1);
}

// Turns O_DIRECT on or off; false when the file system refuses it.
bool set_direct(OutputWriter& w, bool on) {
    if (w.direct == on) {
        return true;
    }
    const int flags = fcntl(w.fd, F_GETFL);
    if (flags < 0 || fcntl(w.fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT) != 0) {
        return false;
    }
    w.direct = on;
    return true;
}

// Writes [data, data + size) at the descriptor's position; returns the bytes
// written before an error, all of them when there was none.
size_t write_all(int fd, const char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += size_t(n);
    }
    return done;
}

bool write_plain(OutputWriter& w, const char* data, size_t size) {
    if (size == 0) {
        return true;
    }
    if (!set_direct(w, false)) {
        return false;
    }
    return write_all(w.fd, data, size) == size;
}

// Aligned bytes past the cache; where the file system turns that down, at the
// first write or later, the rest goes through the cache instead.
bool write_aligned(OutputWriter& w, const char* data, size_t size) {
    if (size == 0) {
        return true;
    }
    size_t done = 0;
    if (w.may_go_direct && set_direct(w, true)) {
        done = write_all(w.fd, data, size);
        if (done < size) {
            w.may_go_direct = false;
        }
    } else {
        w.may_go_direct = false;
    }
    return write_plain(w, data + done, size - done);
}

// Writes bytes [lead, end) of a buffer whose byte 0 sits at an aligned offset.
bool write_buffer(OutputWriter& w, const char* buffer, size_t lead, size_t end) {
    const size_t head_end = std::min(end, round_up(lead));
    const size_t body_end = std::max(head_end, round_down(end));
    return write_plain(w, buffer + lead, head_end - lead) &&
           write_aligned(w, buffer + head_end, body_end - head_end) &&
           write_plain(w, buffer + body_end, end - body_end);
}

void run_writer(OutputWriter* w) {
    std::unique_lock<std::mutex> hold(w->lock);
    for (;;) {
        w->changed.wait(hold, [w] { return w->busy || w->stop; });
        if (w->stop) {
            return;
        }
        hold.unlock();
        const bool ok = w->failed.load() || write_buffer(*w, w->job, w->job_lead, w->job_end);
        hold.lock();
        if (!ok) {
            w->failed = true;
        }
        w->busy = false;
        w->changed.notify_all();
    }
}

void wait_idle(OutputWriter& w) {
    std::unique_lock<std::mutex> hold(w.lock);
    w.changed.wait(hold, [&w] { return !w.busy; });
}

// Hands the filled buffer to the writer thread and starts filling the other.
void hand_over(OutputWriter& w) {
    wait_idle(w);
    char* buffer = w.memory + size_t(w.filling) * w.capacity;
    {
        const std::lock_guard<std::mutex> hold(w.lock);
        w.job = buffer;
        w.job_lead = w.lead;
        w.job_end = w.fill;
        w.busy = true;
    }
    w.changed.notify_all();
    w.offset += w.fill - w.lead;
    w.filling ^= 1;
    w.lead = size_t(w.offset % kDirectAlign);
    w.fill = w.lead;
}

}  // namespace

OutputWriter::~OutputWriter() {
    stop_writer(*this);
}

void start_writer(OutputWriter& w, int fd, size_t buffer_bytes, bool try_direct) {
    assert(w.memory == nullptr && buffer_bytes >= 2 * kDirectAlign);
    w.fd = fd;
    w.capacity = round_down(buffer_bytes / 2);
    w.memory = static_cast<char*>(std::aligned_alloc(kDirectAlign, 2 * w.capacity));
    if (w.memory == nullptr) {
        throw std::bad_alloc();
    }
    w.may_go_direct = try_direct;
    w.thread = std::thread(run_writer, &w);
}

void writer_append(OutputWriter& w, const void* data, size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const size_t piece = std::min(size, w.capacity - w.fill);
        std::memcpy(w.memory + size_t(w.filling) * w.capacity + w.fill, bytes, piece);
        w.fill += piece;
        bytes += piece;
        size -= piece;
        if (w.fill == w.capacity) {
            hand_over(w);
        }
    }
}

void writer_drain(OutputWriter& w) {
    if (w.fill > w.lead) {
        hand_over(w);
    }
    wait_idle(w);
    if (!set_direct(w, false)) {
        w.failed = true;
    }
}

void writer_skip(OutputWriter& w, uint64_t bytes) {
    assert(w.fill == w.lead && !w.busy);
    w.offset += bytes;
    w.lead = size_t(w.offset % kDirectAlign);
    w.fill = w.lead;
}

bool writer_failed(const OutputWriter& w) {
    return w.failed.load();
}

void stop_writer(OutputWriter& w) {
    if (w.thread.joinable()) {
        {
            const std::lock_guard<std::mutex> hold(w.lock);
            w.stop = true;
        }
        w.changed.notify_all();
        w.thread.join();
    }
    std::free(w.memory);
    w.memory = nullptr;
}

}  // namespace tevrin
