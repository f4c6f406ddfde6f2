#include <algorithm>

#include "image/cmap_kernels.h"

// Place f between the rows of a palette, 0 to 255; what isn't a number or doesn't fit goes to an end. The
// blend is rounded to f32, and half a step is added to it in double.
static void _put_blend(const palette_row_t *pal, float f, const rgb_out_t &out, int k)
{
    if (!(f >= 0.0f))
        f = 0.0f;
    if (f >= 256.0f)
        f = 255.0f;
    const int i = (int)f;
    const int j = std::min(i, 253) + 1;
    const float t = f - (float)i;
    uint8_t *const channel[3] = {out.r, out.g, out.b};
    for (int c = 0; c < 3; c++)
        channel[c][k * out.stride] =
            (uint8_t)((double)((pal[j][c] * t + pal[i][c] * (1.0f - t)) * 255.0f) + 0.5);
}

static void _put_black(const rgb_out_t &out, int k)
{
    out.r[k * out.stride] = 0;
    out.g[k * out.stride] = 0;
    out.b[k * out.stride] = 0;
}

void cmap_u16_to_rgb_plain(const palette_row_t *pal, const uint16_t *src, int n, const rgb_out_t &out,
                           uint16_t vmin, uint16_t vmax)
{
    const float s = vmax > vmin ? 255.0f / (float)(vmax - vmin) : 0.0f;
    for (int k = 0; k < n; k++) {
        if (src[k] <= vmin)
            _put_black(out, k);
        else if (vmax <= vmin)
            _put_blend(pal, 255.0f, out, k);
        else
            _put_blend(pal, (float)(std::min(vmax, src[k]) - vmin) * s, out, k);
    }
}

void cmap_f32_to_rgb_plain(const palette_row_t *pal, const float *src, int n, const rgb_out_t &out,
                           float vmin, float vmax)
{
    const float s = 255.0f / (vmax - vmin);
    for (int k = 0; k < n; k++) {
        if (!(src[k] > vmin))
            _put_black(out, k);
        else if (!(vmax > vmin))
            _put_blend(pal, 255.0f, out, k);
        else
            _put_blend(pal, (std::min(vmax, src[k]) - vmin) * s, out, k);
    }
}
