// The output stream from its own calls: bytes land in the file in the order they
// were given, whatever mix of writes and copies made them (large copies go file
// to file, small ones through the buffer). Writes go past the page cache in
// aligned blocks where the file system allows, and through it for the unaligned
// heads and tails a copy leaves; both halves of the buffer take turns.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuse/output_stream.h"
#include "tests/support/gguf_builder.h"

namespace tevrin::testing {
namespace {

std::string patterned(size_t size, size_t seed) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = char((i * 131 + seed * 17) % 251);
    }
    return bytes;
}

// Whether files in `dir` take O_DIRECT (tmpfs, for one, may not).
bool takes_direct_writes(const TempDir& dir) {
    const int fd = open(dir.file("probe").c_str(), O_WRONLY | O_CREAT | O_DIRECT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

TEST(OutputStream, WritesAndCopiesLandInOrderAtAnyAlignment) {
    TempDir dir;
    const size_t half = kStreamBufferBytes / 2;  // copies from this size on go file to file
    const std::string source = patterned(2 * half + 3 * kDirectAlign + 123, 9);
    write_file(dir.file("source"), source);
    const int fd = open(dir.file("source").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    void* mapping = mmap(nullptr, source.size(), PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(mapping, MAP_FAILED);

    OutputStream out;
    open_output(out, dir.file("out.gguf"));
    std::string expected;
    const auto put = [&](size_t size) {
        const std::string bytes = patterned(size, expected.size());
        write_bytes(out, bytes.data(), bytes.size());
        expected += bytes;
    };
    const auto copy = [&](size_t offset, size_t size) {
        copy_file_bytes(out, fd, offset, static_cast<const uint8_t*>(mapping) + offset, size);
        expected += source.substr(offset, size);
    };
    put(100);                                  // a head shorter than a block
    copy(7, half + 5);                         // file to file, leaving the offset unaligned
    put(3 * kDirectAlign + 5);                 // head, aligned body, tail
    copy(kDirectAlign + 1, 2 * kDirectAlign);  // through the buffer
    put(1);
    put(kStreamBufferBytes + 3);  // fills both halves and more
    copy(0, 3);
    write_zeros(out, 2 * kDirectAlign + 1);  // zeros across blocks
    expected += std::string(2 * kDirectAlign + 1, '\0');
    copy(2 * kDirectAlign, half + kDirectAlign);  // file to file again
    put(kDirectAlign - 1);
    check_output(out);
    writer_drain(*out.writer);
    if (takes_direct_writes(dir)) {  // and none was refused for its alignment
        EXPECT_TRUE(out.writer->may_go_direct);
    }
    finish_output(out);
    commit_output(out);
    munmap(mapping, source.size());
    close(fd);

    EXPECT_EQ(out.written, expected.size());
    EXPECT_TRUE(read_file(dir.file("out.gguf")) == expected);
    EXPECT_EQ(unfinished_outputs(dir.path), 0);
}

}  // namespace
}  // namespace tevrin::testing
