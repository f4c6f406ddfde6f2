// What the targets share: each is a function fuzz(), which takes values from its input.
#pragma once

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <vector>

#include "../tests/support/temp_dir.h"
#include "tq_log.h"

struct fuzz_input {
    const uint8_t *data;
    size_t size;

    size_t take_into(void *to, size_t room)
    {
        const size_t n = std::min(size, room);
        std::copy_n(data, n, static_cast<uint8_t *>(to));
        data += n;
        size -= n;
        return n;
    }
    template <typename T> T take() // zero behind the end
    {
        T v = {};
        take_into(&v, sizeof v);
        return v;
    }
    // A copy of the exact size lets the address sanitizer see a read past the end.
    std::vector<uint8_t> take_bytes(size_t most = SIZE_MAX)
    {
        std::vector<uint8_t> bytes(std::min(size, most));
        take_into(bytes.data(), bytes.size());
        return bytes;
    }
};

inline void require(bool held)
{
    if (!held)
        std::abort();
}

// Reads every byte, so that the sanitizers look at it.
inline volatile uint8_t touched;
inline void touch(const void *data, size_t size)
{
    for (size_t i = 0; i < size; i++)
        touched = static_cast<const uint8_t *>(data)[i];
}

void fuzz(fuzz_input in); // the target

// The rest of the input as a file that a name leads to.
struct memory_file {
    const int fd = memfd_create("fuzz", MFD_CLOEXEC);
    std::string name = "/proc/self/fd/" + std::to_string(fd);

    explicit memory_file(const fuzz_input &in)
    {
        require(write(fd, in.data, in.size) == static_cast<ssize_t>(in.size));
    }
    ~memory_file() { close(fd); }
    memory_file(const memory_file &) = delete;
};

// Every line is formatted, and then goes nowhere.
inline const bool log_is_quiet = tq_log_init(nullptr, "/dev/null", "FUZZ") &&
                                 tq_log_cfg(nullptr, TQ_LOG_CONSOLE, TQ_LOG_SILENT, 0) &&
                                 tq_log_cfg(nullptr, TQ_LOG_FILE, TQ_LOG_TRACE, 0);
