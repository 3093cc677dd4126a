// The bytes of one output file on their way to it. The thread that makes them
// appends into one of two buffers while a writer thread writes the other, so
// that making the next chunk overlaps writing the last one.
//
// A file the run created is written past the page cache (O_DIRECT) where its
// file system allows it: the output is synced before it takes its name anyway,
// and copying every byte into the cache first can cost more than the disk does
// (on virtual machines several times more), besides pushing the sources' pages
// out of it. A direct write needs its memory, file offset and length aligned to
// kDirectAlign, so every byte sits in its buffer at the place its file offset
// has within an aligned block; only a head and a tail shorter than a block, where
// a copy between files left the offset unaligned or the file ends, go through
// the cache. A file system that refuses direct writes gets plain ones.
//
// Thread-safety: every call below is made by one thread, the owner. The writer
// thread touches the descriptor only while a buffer is handed to it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

namespace tevrin {

inline constexpr size_t kDirectAlign = 4096;

struct OutputWriter {
    int fd = -1;
    size_t capacity = 0;         // bytes per buffer, a multiple of kDirectAlign
    char* memory = nullptr;      // both buffers, aligned
    int filling = 0;             // the buffer being filled
    size_t lead = 0;             // where its bytes start: offset % kDirectAlign
    size_t fill = 0;             // where they end
    uint64_t offset = 0;         // file offset of the next byte appended
    bool may_go_direct = false;  // the file may be tried with O_DIRECT
    bool direct = false;         // O_DIRECT is set on fd now

    std::mutex lock;
    std::condition_variable changed;
    const char* job = nullptr;  // [job + job_lead, job + job_end) to write, when busy
    size_t job_lead = 0;
    size_t job_end = 0;
    bool busy = false;
    bool stop = false;
    std::atomic<bool> failed{false};
    std::thread thread;

    OutputWriter() = default;
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;
    ~OutputWriter();
};

// Starts the writer on `fd`, whose position is 0, with `buffer_bytes` of
// buffers in all; `try_direct` for a regular file the run created. Fails with
// std::bad_alloc or std::system_error.
void start_writer(OutputWriter& w, int fd, size_t buffer_bytes, bool try_direct);

void writer_append(OutputWriter& w, const void* data, size_t size);

// Returns once every byte appended is in the file, with the descriptor's
// position after them and O_DIRECT off: for a copy into the file by other means.
void writer_drain(OutputWriter& w);

// Counts `bytes` put at the end of the file by other means since the drain.
void writer_skip(OutputWriter& w, uint64_t bytes);

// True once a write has failed; later bytes are dropped.
bool writer_failed(const OutputWriter& w);

// Ends the writer thread; what is still buffered is dropped. Safe to repeat.
void stop_writer(OutputWriter& w);

}  // namespace tevrin
