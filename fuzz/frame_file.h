// What the three loaders of frame files have in common: the input becomes a file in memory and is loaded
// until nothing comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

// load(fd) returns the values delivered, at most 64.
template <typename F> void fuzz_frame_file(const uint8_t *data, size_t size, F load)
{
    static const int fd = memfd_create("frame_file", 0);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        std::abort();
    lseek(fd, 0, SEEK_SET);
    // Each image takes a byte at least, so that as many calls must come to the end.
    for (size_t i = 0; i <= size; i++) {
        const int n = load(fd);
        if (n < 0 || n > 64)
            std::abort();
        if (n == 0)
            return;
    }
    std::abort();
}
