#include "image/conv_kernels.h"

#include <cstring>

// Towards zero; beyond the 32-bit range the nearest end of it, NaN is 0.
static inline int32_t _to_i32(float v)
{
    if (v >= 2147483648.0f)
        return INT32_MAX;
    if (v <= -2147483648.0f)
        return INT32_MIN;
    return v == v ? (int32_t)v : 0;
}

static inline uint32_t _to_u32(float v)
{
    if (v >= 4294967296.0f)
        return UINT32_MAX;
    return v >= 2147483648.0f ? (uint32_t)v : (uint32_t)_to_i32(v);
}

// Source and destination may share memory: a copy keeps the compiler from taking their types for a promise.
template <class T> static inline T _load(const T *src)
{
    T v;
    memcpy(&v, src, sizeof(v));
    return v;
}

template <class T> static inline void _store(T *dst, T v)
{
    memcpy(dst, &v, sizeof(v));
}

void conv_u16_u8_plain(uint8_t *dst, const uint16_t *src, int n, int shift)
{
    for (int i = 0; i < n; i++)
        dst[i] = (uint8_t)(src[i] >> shift);
}

void conv_u16_f32_plain(float *dst, const uint16_t *src, int n, float factor)
{
    for (int i = 0; i < n; i++)
        _store(dst + i, (float)_load(src + i) * factor);
}

void conv_u16_u32_plain(uint32_t *dst, const uint16_t *src, int n, uint16_t factor)
{
    for (int i = 0; i < n; i++)
        _store(dst + i, (uint32_t)_load(src + i) * factor);
}

void conv_f32_u8_plain(uint8_t *dst, const float *src, int n, float factor)
{
    for (int i = 0; i < n; i++)
        dst[i] = (uint8_t)_to_i32(src[i] * factor);
}

void conv_f32_u16_plain(uint16_t *dst, const float *src, int n, float factor)
{
    for (int i = 0; i < n; i++)
        dst[i] = (uint16_t)_to_i32(src[i] * factor);
}

void conv_f32_u32_plain(uint32_t *dst, const float *src, int n, float factor)
{
    for (int i = 0; i < n; i++)
        dst[i] = _to_u32(src[i] * factor);
}

void conv_u32_f32_plain(float *dst, const uint32_t *src, int n, float factor)
{
    for (int i = 0; i < n; i++)
        _store(dst + i, factor == 1.0f ? (float)_load(src + i) : (float)_load(src + i) * factor);
}
