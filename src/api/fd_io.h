// Whole transfers on a descriptor, and the numbers that frame files store.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

// Writes all len bytes. False when the file takes no more; what was written stays.
bool fd_write(int fd, const void *data, size_t len);

// Reads until len bytes are there, the file ends or fails. Returns the bytes read; -1 when the first read
// failed.
int64_t fd_read(int fd, void *data, size_t len);

// Cuts the fraction off. Values outside an i32 are clamped to it and NaN is 0, as the conversion is undefined
// there.
inline int32_t f32_to_i32(float v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 2147483648.0f)
        return INT32_MAX;
    if (v < -2147483648.0f)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}
