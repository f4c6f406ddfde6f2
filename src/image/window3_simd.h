// How a filter on 3 x 3 pixels walks an image in vectors. Included once for each target, like the files that
// use it.
//
// A strip as wide as a vector goes down the image. What a row brings to its windows (sums, sorted triples) is
// formed once, when the strip comes to it, and stays in registers for the three windows that hold the row.
// The first and the last strip see a copy with the border repeated; a band of rows at a time keeps the
// columns beside a strip in the first-level cache until the next strip needs them.
#if defined(TQ_WINDOW3_SIMD_H) == defined(HWY_TARGET_TOGGLE)
#ifdef TQ_WINDOW3_SIMD_H
#undef TQ_WINDOW3_SIMD_H
#else
#define TQ_WINDOW3_SIMD_H
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <hwy/highway.h>

#include "image/window.h"
#include "simd/target.h"

#if !TQ_PLAIN_TARGET
HWY_BEFORE_NAMESPACE();
namespace tq_window3 {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

constexpr int BAND = 16;

// Filter has
//   T              element type
//   D, V           its vectors
//   row_t          what a row brings
//   row_t Row(D, const T *p)                 of the row at p, for the columns from p on
//   pair_t Pair(row_t b, row_t c)            what two rows bring to both their windows
//   V Out(row_t a, row_t b, pair_t bc)       a window of the pair and one further row, b in the middle
// The window of b is a, b, c, the window of c is b, c, d: Out(a, b, bc) and Out(d, c, bc).
template <class F>
HWY_INLINE void Strip(typename F::D d, typename F::T *dst, size_t dst_step, const typename F::T *src,
                      size_t src_step, int y0, int y1, int top, int bottom)
{
    using T = typename F::T;
    const auto row = [&](int y)
                         HWY_ATTR { return src + src_step * (size_t)(std::clamp(y, top, bottom) - top); };
    auto a = F::Row(d, row(y0 - 1)), b = F::Row(d, row(y0));
    int y = y0;
    for (; y + 1 < y1; y += 2) {
        const auto c = F::Row(d, row(y + 1)), e = F::Row(d, row(y + 2));
        const auto bc = F::Pair(b, c);
        T *out = dst + dst_step * (size_t)(y - y0);
        hn::StoreU(F::Out(a, b, bc), d, out);
        hn::StoreU(F::Out(e, c, bc), d, out + dst_step);
        a = c;
        b = e;
    }
    if (y < y1) {
        const auto c = F::Row(d, row(y + 1));
        hn::StoreU(F::Out(a, b, F::Pair(b, c)), d, dst + dst_step * (size_t)(y - y0));
    }
}

// Needs w of a vector and one at least.
template <class F> HWY_INLINE void Window3(typename F::T *dst, const typename F::T *src, int w, int h)
{
    using T = typename F::T;
    const typename F::D d;
    const int N = (int)hn::Lanes(d);
    constexpr int ROOM = (int)hn::MaxLanes(typename F::D()) + 2;
    T edge[BAND + 2][ROOM];
    for (int y0 = 0; y0 < h; y0 += BAND) {
        const int y1 = std::min(y0 + BAND, h);
        const int top = std::max(y0 - 1, 0), bottom = std::min(y1, h - 1);
        for (int side = 0; side < 2; side++) {
            const int x0 = side ? w - N : 0;
            for (int y = top; y <= bottom; y++) {
                const T *row = src + (size_t)w * y;
                T *to = edge[y - top];
                hn::StoreU(hn::LoadU(d, row + x0), d, to + 1);
                to[0] = row[side ? x0 - 1 : 0];
                to[N + 1] = row[side ? w - 1 : N];
            }
            Strip<F>(d, dst + (size_t)w * y0 + x0, w, edge[0] + 1, ROOM, y0, y1, top, bottom);
        }
        for (int x = N; x < w - N; x += N)
            Strip<F>(d, dst + (size_t)w * y0 + x, w, src + (size_t)w * top + x, w, y0, y1, top, bottom);
    }
}

} // namespace HWY_NAMESPACE
} // namespace tq_window3
HWY_AFTER_NAMESPACE();
#endif

#endif
