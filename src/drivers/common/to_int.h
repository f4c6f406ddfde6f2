// Floats become integers only after they were clamped: calibration floats come from files.
#pragma once

#include <cstdint>

// Truncated toward zero; NaN is 0.
inline int32_t to_i32(float v)
{
    if (v >= -2147483648.0f && v < 2147483648.0f)
        return static_cast<int32_t>(v);
    return v > 0 ? INT32_MAX : v < 0 ? INT32_MIN : 0;
}

inline int64_t to_i64(double v)
{
    if (v >= -9223372036854775808.0 && v < 9223372036854775808.0)
        return static_cast<int64_t>(v);
    return v > 0 ? INT64_MAX : v < 0 ? INT64_MIN : 0;
}
