// The output file of a run: one buffered stream, written front to back by the
// thread that runs the fusion, with a count of the bytes written.
//
// Owned by the driver; not shared between threads. Clean-up after a failure
// removes only a regular file that this run created or truncated, and only while
// the path still names that very file: `-o /dev/null`, a FIFO or a device is
// written to but never removed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace tevrin {

// Bytes of the stream buffer between the writers and the file.
inline constexpr size_t kStreamBufferBytes = 8388608;

struct OutputStream {
    std::string path;
    FILE* stream = nullptr;
    uint64_t written = 0;  // bytes handed to the stream so far
    bool removable = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

// Fails with "cannot write <path>".
void open_output(OutputStream& out, const std::string& path);

void write_bytes(OutputStream& out, const void* data, size_t size);
void write_zeros(OutputStream& out, uint64_t count);

// Appends `size` bytes of the file `fd` from `offset`, file to file inside the
// kernel where it can (the mapping is not touched), and from `mapped` (the same
// bytes in a mapping) for whatever it cannot: another file system, a pipe, a
// device. Mapped pages read are released afterwards.
void copy_file_bytes(OutputStream& out, int fd, uint64_t offset, const uint8_t* mapped,
                     size_t size);

// Flushes and closes; fails with "write error (disk full?)" when any write failed.
void finish_output(OutputStream& out);

// Closes what is open and removes the file if this run made it (see above).
void discard_output(OutputStream& out);

}  // namespace tevrin
