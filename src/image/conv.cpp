#include "tq_filter.h"

#include "image/conv_kernels.h"
#include "simd/dispatch.h"

void tq_conv_u16_u8(uint8_t *dst, const uint16_t *src, int n, int factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_u16_u8_simd : conv_u16_u8_plain)(dst, src, n,
                                                            factor < 0    ? 0
                                                            : factor > 16 ? 16
                                                                          : factor);
}

void tq_conv_u16_f32(float *dst, const uint16_t *src, int n, float factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_u16_f32_simd : conv_u16_f32_plain)(dst, src, n, factor);
}

void tq_conv_u16_u32(uint32_t *dst, const uint16_t *src, int n, uint16_t factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_u16_u32_simd : conv_u16_u32_plain)(dst, src, n, factor);
}

void tq_conv_f32_u8(uint8_t *dst, const float *src, int n, float factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_f32_u8_simd : conv_f32_u8_plain)(dst, src, n, factor);
}

void tq_conv_f32_u16(uint16_t *dst, const float *src, int n, float factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_f32_u16_simd : conv_f32_u16_plain)(dst, src, n, factor);
}

void tq_conv_f32_u32(uint32_t *dst, const float *src, int n, float factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_f32_u32_simd : conv_f32_u32_plain)(dst, src, n, factor);
}

void tq_conv_u32_f32(float *dst, const uint32_t *src, int n, float factor)
{
    if (n < 1 || !dst || !src)
        return;
    (simd_enabled() ? conv_u32_f32_simd : conv_u32_f32_plain)(dst, src, n, factor);
}
