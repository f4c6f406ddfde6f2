#include <algorithm>
#include <cstddef>

#include "image/smooth_kernels.h"

// The mean of the eight neighbours; Sum holds eight values.
template <class T, class Sum> static void _box2d_k3(T *dst, const T *src, int w, int h)
{
    for (int y = 0; y < h; y++) {
        const T *mid = src + (size_t)w * y;
        const T *up = y > 0 ? mid - w : mid;
        const T *down = y < h - 1 ? mid + w : mid;
        T *out = dst + (size_t)w * y;
        for (int x = 0; x < w; x++) {
            const int l = std::max(x - 1, 0), r = std::min(x + 1, w - 1);
            const Sum sum = (Sum)up[l] + up[x] + up[r] + mid[l] + mid[r] + down[l] + down[x] + down[r];
            out[x] = (T)(sum >> 3);
        }
    }
}

void box2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    _box2d_k3<uint16_t, uint32_t>(dst, src, w, h);
}

void box2d_u32_k3_plain(uint32_t *dst, const uint32_t *src, int w, int h)
{
    _box2d_k3<uint32_t, uint64_t>(dst, src, w, h);
}
