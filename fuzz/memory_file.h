// The input as a file that a name leads to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class memory_file {
  public:
    memory_file(const uint8_t *data, size_t size) : fd_(memfd_create("fuzz", MFD_CLOEXEC))
    {
        if (fd_ < 0 || write(fd_, data, size) != static_cast<ssize_t>(size))
            std::abort();
        name_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    int fd() const { return fd_; }
    const char *name() const { return name_.c_str(); }
    char *name() { return name_.data(); }

  private:
    int fd_;
    std::string name_;
};
