#include "api/fd_io.h"

#include <cerrno>

#include <unistd.h>

bool fd_write(int fd, const void *data, size_t len)
{
    const char *at = static_cast<const char *>(data);
    while (len > 0) {
        const ssize_t n = write(fd, at, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

int64_t fd_read(int fd, void *data, size_t len)
{
    char *at = static_cast<char *>(data);
    size_t got = 0;
    while (got < len) {
        const ssize_t n = read(fd, at + got, len - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && got == 0)
            return -1;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(got);
}
