#include "image/gauss_iir_kernels.h"

#include <algorithm>

// One direction over n values, stride apart: the three values in front of the first are start.
static void _run(float *dst, const float *src, int n, ptrdiff_t stride, float start,
                 const gauss_iir_coef_t &c)
{
    float y1 = start, y2 = start, y3 = start;
    for (int i = 0; i < n; i++, src += stride, dst += stride) {
        const float y = c.B * *src + c.b1 * y1 + c.b2 * y2 + c.b3 * y3;
        y3 = y2;
        y2 = y1;
        y1 = *dst = y;
    }
}

static void _line(float *dst, const float *src, int n, ptrdiff_t stride, const gauss_iir_coef_t &c)
{
    _run(dst, src, n, stride, *src, c);
    float *last = dst + (n - 1) * stride;
    _run(last, last, n, -stride, *last, c);
}

void gauss_iir_f32_plain(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c)
{
    for (int y = 0; y < h; y++)
        _line(dst + (size_t)w * y, src + (size_t)w * y, w, 1, c);
    for (int x = 0; x < w; x++)
        _line(dst + x, dst + x, h, w, c);
}

void gauss_iir_to_u16_plain(uint16_t *dst, const float *src, size_t n)
{
    for (size_t i = 0; i < n; i++)
        dst[i] = src[i] > 0.0f ? (uint16_t)std::min(src[i], 65535.0f) : 0;
}
