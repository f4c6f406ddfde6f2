#include <algorithm>
#include <cstddef>

#include "image/depth_kernels.h"

static int16_t _signed(uint16_t v)
{
    return (int16_t)v;
}

void fhole_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    for (int y = 0; y < h; y++) {
        const uint16_t *m = src + (ptrdiff_t)y * w;
        const uint16_t *t = y > 0 ? m - w : m;
        const uint16_t *b = y < h - 1 ? m + w : m;
        uint16_t *out = dst + (ptrdiff_t)y * w;
        for (int x = 0; x < w; x++) {
            if (_signed(m[x]) > 0) {
                out[x] = m[x];
                continue;
            }
            const int l = std::max(x - 1, 0);
            const int r = std::min(x + 1, w - 1);
            out[x] = (uint16_t)std::max({_signed(t[l]), _signed(t[x]), _signed(t[r]), _signed(m[l]),
                                         _signed(m[r]), _signed(b[l]), _signed(b[x]), _signed(b[r])});
        }
    }
}

void fhole_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            const uint16_t c = src[(ptrdiff_t)y * w + x];
            int16_t most = INT16_MIN;
            for (int j = -2; _signed(c) <= 0 && j <= 2; j++) {
                const uint16_t *row = src + (ptrdiff_t)std::clamp(y + j, 0, h - 1) * w;
                for (int i = -2; i <= 2; i++)
                    if (i != 0 || j != 0)
                        most = std::max(most, _signed(row[std::clamp(x + i, 0, w - 1)]));
            }
            dst[(ptrdiff_t)y * w + x] = _signed(c) > 0 ? c : (uint16_t)most;
        }
    }
}
