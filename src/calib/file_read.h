// Reading of files whose sizes nobody vouches for.
#pragma once

#include <cstdint>
#include <cstdio>

// Reads exactly n bytes. False when the file ends before.
inline bool file_read(FILE *fp, void *dst, size_t n)
{
    return std::fread(dst, 1, n, fp) == n;
}

// Bytes from the stream's position to the end of its file; all ones when the stream can't seek. What a file
// claims to hold is compared with it before memory is allocated.
inline uint64_t file_rest(FILE *fp)
{
    const off_t at = ftello(fp);
    if (at < 0 || fseeko(fp, 0, SEEK_END) != 0)
        return UINT64_MAX;
    const off_t end = ftello(fp);
    if (fseeko(fp, at, SEEK_SET) != 0)
        return 0;
    return end > at ? static_cast<uint64_t>(end - at) : 0;
}
