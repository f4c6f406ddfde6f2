#include <algorithm>
#include <cstddef>

#include "image/smooth_kernels.h"

void gauss2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    for (int y = 0; y < h; y++) {
        const uint16_t *mid = src + (size_t)w * y;
        const uint16_t *up = y > 0 ? mid - w : mid;
        const uint16_t *down = y < h - 1 ? mid + w : mid;
        uint16_t *out = dst + (size_t)w * y;
        for (int x = 0; x < w; x++) {
            const int l = std::max(x - 1, 0), r = std::min(x + 1, w - 1);
            const uint32_t sum = up[l] + 2u * up[x] + up[r] + 2u * mid[l] + 4u * mid[x] + 2u * mid[r] +
                                 down[l] + 2u * down[x] + down[r];
            out[x] = (uint16_t)(sum >> 4);
        }
    }
}
