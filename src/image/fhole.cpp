#include "tq_depth.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "image/depth_kernels.h"
#include "log/log.h"
#include "simd/dispatch.h"

// What in-place filling reads is what it writes.
static const uint16_t *_fill_source(uint16_t *dst, const uint16_t *src, int w, int h, int in_place)
{
    if (!in_place)
        return src;
    if (dst != src)
        memcpy(dst, src, (size_t)w * (size_t)h * sizeof *dst);
    return dst;
}

void tq_fhole_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h, int in_place)
{
    if (!dst || !src || w < 2 || h < 2)
        return;
    src = _fill_source(dst, src, w, h, in_place);
    if (simd_enabled() && src != dst)
        fhole_u16_k3_simd(dst, src, w, h);
    else
        fhole_u16_k3_plain(dst, src, w, h);
}

void tq_fhole_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h, int in_place)
{
    if (dst && src && w >= 2 && h >= 2)
        fhole_u16_k5_plain(dst, _fill_source(dst, src, w, h, in_place), w, h);
}

namespace {

constexpr uint16_t kHole = 999; // a hole's distance to the nearest measured pixel, not known yet

struct neighbour_t {
    ptrdiff_t at;  // index of the pixel
    uint16_t away; // its distance to the nearest measured pixel
    uint16_t step; // its own distance from the centre
};

const neighbour_t &_nearer(const neighbour_t &a, const neighbour_t &b)
{
    return b.away < a.away ? b : a;
}

} // namespace

void tq_fhole_u16_edt3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (!dst || !src || w < 2 || h < 2) {
        LOG_ERROR("[%s] wrong parameter:w/h=%d/%d\n", w, h);
        return;
    }
    const size_t n = (size_t)w * (size_t)h;
    const std::unique_ptr<uint16_t, decltype(&free)> map((uint16_t *)malloc(n * sizeof(uint16_t)), &free);
    if (!map) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
    uint16_t *away = map.get();
    for (size_t i = 0; i < n; i++) {
        dst[i] = src[i];
        away[i] = (int16_t)src[i] < 1 ? kHole : 1;
    }
    for (int y = 0; y < h; y++) {
        const ptrdiff_t m = (ptrdiff_t)y * w;
        const ptrdiff_t t = y > 0 ? m - w : m;
        const ptrdiff_t b = y < h - 1 ? m + w : m;
        for (int x = 0; x < w; x++) {
            if (away[m + x] != kHole)
                continue;
            const int l = std::max(x - 1, 0);
            const int r = std::min(x + 1, w - 1);
            const auto at = [away](ptrdiff_t i, uint16_t step) { return neighbour_t{i, away[i], step}; };
            const neighbour_t top = _nearer(at(t + l, 2), at(t + r, 2));
            const neighbour_t middle = _nearer(at(m + l, 1), at(m + r, 1));
            const neighbour_t bottom = _nearer(at(b + l, 2), at(b + r, 2));
            const neighbour_t column = _nearer(at(t + x, 1), at(b + x, 1));
            const neighbour_t best = _nearer(_nearer(top, middle), _nearer(bottom, column));
            dst[m + x] = dst[best.at];
            away[m + x] = (uint16_t)(best.away + best.step);
        }
    }
}
