#include <algorithm>
#include <cstddef>

#include "image/depth_kernels.h"

// The table entry for two neighbours.
static inline int _step(const tq_bpf2d_iir_t *f, uint16_t a, uint16_t b)
{
    const float d = (float)(a > b ? a - b : b - a);
    return (int)(std::clamp(d, f->lo, f->hi) - f->lo);
}

// One row, both ways, into its row of the planes.
static void _filter_row(tq_bpf2d_iir_t *f, const uint16_t *in, float *sum, float *norm)
{
    const int w = (int)f->w;
    const float *tbl = bpf2d_table_x(f);
    const float b = 1.0f - f->alpha_x;
    float *wt = f->line[0];
    float y = in[0];
    float n = 1.0f;
    sum[0] = y;
    norm[0] = n;
    for (int i = 0; i < w - 1; i++) {
        wt[i] = tbl[_step(f, in[i], in[i + 1])];
        y = wt[i] * y + b * (float)in[i + 1];
        n = wt[i] * n + b;
        sum[i + 1] = y;
        norm[i + 1] = n;
    }
    y = in[w - 1];
    n = 1.0f;
    sum[w - 1] += y;
    norm[w - 1] += n;
    for (int i = w - 2; i >= 0; i--) {
        y = wt[i] * y + b * (float)in[i];
        n = wt[i] * n + b;
        sum[i] += y;
        norm[i] += n;
    }
}

// Truncated; a quotient that isn't a number or doesn't fit is clamped.
static inline uint16_t _quotient(float s, float n)
{
    const float q = s / n;
    return (uint16_t)(q > 0.0f ? std::min(q, 65535.0f) : 0.0f);
}

// One column of the planes, both ways, into the image.
static void _filter_column(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src, uint32_t x)
{
    const ptrdiff_t w = f->w;
    const int h = (int)f->h;
    const float *tbl = bpf2d_table_y(f);
    const float c = 1.0f / (1.0f - f->alpha_y);
    const float *sum = f->sum + x;
    const float *norm = f->norm + x;
    float *wt = f->line[0];
    float *down_s = f->line[1];
    float *down_n = f->line[2];
    src += x;
    dst += x;
    float s = sum[0] * c;
    float n = norm[0] * c;
    down_s[0] = s;
    down_n[0] = n;
    for (int j = 0; j < h - 1; j++) {
        wt[j] = tbl[_step(f, src[j * w], src[(j + 1) * w])];
        s = wt[j] * s + sum[(j + 1) * w];
        n = wt[j] * n + norm[(j + 1) * w];
        down_s[j + 1] = s;
        down_n[j + 1] = n;
    }
    s = sum[(h - 1) * w] * c;
    n = norm[(h - 1) * w] * c;
    dst[(h - 1) * w] = _quotient(down_s[h - 1] + s, down_n[h - 1] + n);
    for (int j = h - 2; j >= 0; j--) {
        s = wt[j] * s + sum[j * w];
        n = wt[j] * n + norm[j * w];
        dst[j * w] = _quotient(down_s[j] + s, down_n[j] + n);
    }
}

void bpf2d_iir_plain(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src)
{
    for (uint32_t y = 0; y < f->h; y++) {
        const size_t at = (size_t)y * f->w;
        _filter_row(f, src + at, f->sum + at, f->norm + at);
    }
    for (uint32_t x = 0; x < f->w; x++)
        _filter_column(f, dst, src, x);
}
