#include "image/depth_kernels.h"

#include <algorithm>
#include <cstddef>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/fhole_simd.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {

#if TQ_PLAIN_TARGET

void FholeK3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    fhole_u16_k3_plain(dst, src, w, h);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

HWY_INLINE int16_t Most(const int16_t *row, int l, int x, int r)
{
    return std::max(std::max(row[l], row[r]), row[x]);
}

// Two rows at a time: the greatest of each triple of the rows between serves both.
HWY_INLINE void RowPair(int16_t *out, ptrdiff_t down, const int16_t *a, const int16_t *b, const int16_t *c,
                        const int16_t *e, int w)
{
    const hn::ScalableTag<int16_t> d;
    using V = hn::Vec<decltype(d)>;
    const int n = (int)hn::Lanes(d);
    const V one = hn::Set(d, 1);
    const auto sides = [d](const int16_t *p) { return hn::Max(hn::LoadU(d, p - 1), hn::LoadU(d, p + 1)); };
    for (int at = 1; at < w - 1; at += n) {
        const int x = std::min(at, w - 1 - n); // the last one overlaps
        const V vb = hn::LoadU(d, b + x), vc = hn::LoadU(d, c + x);
        const V sb = sides(b + x), sc = sides(c + x);
        const V above = hn::Max(hn::Max(sides(a + x), hn::LoadU(d, a + x)), hn::Max(sc, vc));
        const V below = hn::Max(hn::Max(sides(e + x), hn::LoadU(d, e + x)), hn::Max(sb, vb));
        hn::StoreU(hn::IfThenElse(hn::Lt(vb, one), hn::Max(above, sb), vb), d, out + x);
        hn::StoreU(hn::IfThenElse(hn::Lt(vc, one), hn::Max(below, sc), vc), d, out + down + x);
    }
    for (const int x : {0, w - 1}) {
        const int l = std::max(x - 1, 0), r = std::min(x + 1, w - 1);
        const int16_t above = std::max(Most(a, l, x, r), Most(c, l, x, r));
        const int16_t below = std::max(Most(b, l, x, r), Most(e, l, x, r));
        const int16_t mb = b[x] < 1 ? std::max({above, b[l], b[r]}) : b[x];
        const int16_t mc = c[x] < 1 ? std::max({below, c[l], c[r]}) : c[x];
        out[x] = mb;
        out[down + x] = mc;
    }
}

void FholeK3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (w < (int)hn::Lanes(hn::ScalableTag<int16_t>()) + 2) {
        fhole_u16_k3_plain(dst, src, w, h);
        return;
    }
    const int16_t *in = (const int16_t *)src;
    int16_t *out = (int16_t *)dst;
    const auto row = [in, w, h](int y) { return in + (ptrdiff_t)std::clamp(y, 0, h - 1) * w; };
    for (int at = 0; at < h; at += 2) {
        const int y = std::min(at, h - 2); // of an odd height the last but one row is done twice
        RowPair(out + (ptrdiff_t)y * w, w, row(y - 1), row(y), row(y + 1), row(y + 2), w);
    }
}

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(FholeK3);

void fhole_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(FholeK3)(dst, src, w, h);
}

#endif
