// The output file of a run: one stream, written front to back by the thread
// that runs the fusion, with a count of the bytes written. The bytes reach the
// file through an OutputWriter (fuse/output_writer.h), while the next ones are
// made.
//
// A regular file (or a path that does not exist yet, or a symbolic link to
// either) is never written in place: the stream goes to a hidden temporary file
// beside the target, ".<name>.tevrin-<pid>.tmp", created exclusively; finishing
// flushes and syncs it, and committing renames it over the target and syncs the
// directory. Under the target's name there is therefore always either the
// complete new file or whatever was there before, after any failure, a kill or
// a power cut. A symbolic link stays a link: the file it points to is replaced.
// Anything else (a FIFO, a device, a path under /dev or /proc such as
// /dev/stdout) is written straight to, and never removed.
//
// Owned by the driver; not shared between threads, except that
// discard_output_from_signal may run in a signal handler at any time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "fuse/output_writer.h"

namespace tevrin {

// Bytes of the stream buffers between the writers and the file, both halves.
inline constexpr size_t kStreamBufferBytes = 8388608;

struct OutputStream {
    std::string path;       // what the user named
    std::string target;     // the file replaced on commit (the link's target for a link)
    std::string temp_path;  // empty when writing straight to the target
    int fd = -1;
    std::unique_ptr<OutputWriter> writer;  // while open
    uint64_t written = 0;                  // bytes handed to the stream so far
    dev_t temp_dev = 0;                    // the temporary file's identity, kept after the commit
    ino_t temp_ino = 0;
    bool committed = false;
};

// Fails with "cannot write <path>".
void open_output(OutputStream& out, const std::string& path);

void write_bytes(OutputStream& out, const void* data, size_t size);
void write_zeros(OutputStream& out, uint64_t count);

// Appends `size` bytes of the file `fd` from `offset`, file to file inside the
// kernel where it can (the mapping is not touched), and from `mapped` (the same
// bytes in a mapping) for whatever it cannot: another file system, a pipe, a
// device; and for pieces smaller than half the stream buffer, which the kernel
// could copy only after every byte before them is written. Mapped pages read
// are released afterwards.
void copy_file_bytes(OutputStream& out, int fd, uint64_t offset, const uint8_t* mapped,
                     size_t size);

// Fails with "write error (disk full?)" when a write so far has failed; lets a
// run stop at the chunk or tensor where the disk filled up.
void check_output(const OutputStream& out);

// Flushes, syncs and closes; fails with "write error (disk full?)".
void finish_output(OutputStream& out);

// Renames the finished temporary file over the target and syncs the directory;
// fails with "cannot write <path>". Nothing to do when writing straight.
void commit_output(OutputStream& out);

// Closes what is open and removes the temporary file, if any; the target is
// never touched.
void discard_output(OutputStream& out);

// The whole life of a one-file output: opens `path`, lets `write` fill the
// stream, finishes and commits it; after any failure (rethrown) nothing of it is
// left and the path holds what it held before.
void write_output_file(const std::string& path, const std::function<void(OutputStream&)>& write);

// Removes the file a commit put under the target's name, while that name still
// holds it: for a run whose later shards fail to take their names after earlier
// ones did. What the name held before the commit is gone either way.
void withdraw_output(OutputStream& out);

// Removes the temporary file of the output being written, if any, using only
// async-signal-safe calls: for a signal that ends the program at once.
void discard_output_from_signal();

}  // namespace tevrin
