#include <algorithm>
#include <cstddef>

#include "image/depth_kernels.h"

void flypix_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    for (int y = 0; y < h; y++) {
        const uint16_t *m = src + (ptrdiff_t)y * w;
        const uint16_t *t = y > 0 ? m - w : m;
        const uint16_t *b = y < h - 1 ? m + w : m;
        uint16_t *out = dst + (ptrdiff_t)y * w;
        for (int x = 0; x < w; x++) {
            const int l = std::max(x - 1, 0);
            const int r = std::min(x + 1, w - 1);
            const int64_t gx = (t[r] - t[l]) + (b[r] - b[l]) + 2 * (m[r] - m[l]);
            const int64_t gy = (b[l] - t[l]) + (b[r] - t[r]) + 2 * (b[x] - t[x]);
            const int64_t c = m[x];
            out[x] = c * c * thr / 1024 < (gx * gx + gy * gy) >> 2 ? 0 : m[x];
        }
    }
}

void flypix_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    for (int y = 0; y < h; y++) {
        const uint16_t *row[5];
        for (int j = 0; j < 5; j++)
            row[j] = src + (ptrdiff_t)std::clamp(y + j - 2, 0, h - 1) * w;
        uint16_t *out = dst + (ptrdiff_t)y * w;
        for (int x = 0; x < w; x++) {
            int64_t gx = 0, gy = 0;
            for (int i = 0; i < 5; i++) {
                const int at = std::clamp(x + i - 2, 0, w - 1);
                const int column = row[0][at] + row[1][at] + row[2][at] + row[3][at] + row[4][at];
                gx += i < 2 ? column : i > 2 ? -column : 0;
                gy += row[0][at] + row[1][at] - row[3][at] - row[4][at];
            }
            const int64_t c = row[2][x];
            out[x] = (thr * c * c) >> 8 < (gx * gx + gy * gy) >> 2 ? 0 : row[2][x];
        }
    }
}
