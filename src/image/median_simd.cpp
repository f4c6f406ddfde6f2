// Medians of 3 x 3 and 5 x 5 pixels on vectors. Pixels are sorted once for all windows that they lie in, in
// rows of three or columns of five, and two rows of output share what their windows have in common. Exact, so
// that it equals every other way to find a median.
#include <algorithm>
#include <cstddef>

#include "image/median5_network.h"
#include "image/smooth_kernels.h"
#include "image/window.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/median_simd.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "image/window3_simd.h"
#include "simd/target.h"

HWY_BEFORE_NAMESPACE();
namespace {
namespace HWY_NAMESPACE {
#if TQ_PLAIN_TARGET

void Median3x3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    median2d_u16_k3_plain(dst, src, w, h);
}

void Median5x5(uint16_t *dst, const uint16_t *src, int w, int h)
{
    median2d_u16_k5_plain(dst, src, w, h);
}

#else

namespace hn = hwy::HWY_NAMESPACE;

using D = hn::ScalableTag<uint16_t>;
using V = hn::Vec<D>;

// A comparator, and its halves where only one result is needed.
#define BOTH(a, b)                                                                                           \
    {                                                                                                        \
        const V low_ = hn::Min(a, b);                                                                        \
        b = hn::Max(a, b);                                                                                   \
        a = low_;                                                                                            \
    }
#define LOW(a, b) a = hn::Min(a, b);
#define HIGH(a, b) b = hn::Max(a, b);

// Three rows, each sorted in itself: the median is that of the greatest least, the middle middle and the
// least greatest.
struct median3_t {
    using T = uint16_t;
    using D = HWY_NAMESPACE::D;
    struct row_t {
        V low, mid, high;
    };
    struct pair_t {
        V low, mid0, mid1, high; // greatest least, the two middles in order, least greatest
    };

    static HWY_INLINE row_t Row(D d, const uint16_t *p)
    {
        V l = hn::LoadU(d, p - 1), m = hn::LoadU(d, p), r = hn::LoadU(d, p + 1);
        BOTH(l, m) BOTH(m, r) BOTH(l, m) return {l, m, r};
    }
    static HWY_INLINE pair_t Pair(const row_t &b, const row_t &c)
    {
        return {hn::Max(b.low, c.low), hn::Min(b.mid, c.mid), hn::Max(b.mid, c.mid), hn::Min(b.high, c.high)};
    }
    static HWY_INLINE V Out(const row_t &a, const row_t &, const pair_t &bc)
    {
        V low = hn::Max(bc.low, a.low), high = hn::Min(bc.high, a.high);
        const V mid = hn::Max(bc.mid0, hn::Min(bc.mid1, a.mid));
        BOTH(low, high)
        return hn::Max(low, hn::Min(high, mid));
    }
};

// Sorted columns of a part of two rows of output, in the first-level cache: [output row][rank][column]. Room
// on both sides takes the columns beside the part.
constexpr int PART = 1024;
constexpr int PAD = 64;
struct columns_t {
    alignas(64) uint16_t at[2][5][PART + 2 * PAD];
};

// Sorts the columns at x for the rows of output y and y + 1; rows[i] is row y - 2 + i.
HWY_INLINE void SortColumns(D d, const uint16_t *const *rows, int x, columns_t *c, int to)
{
    V v0 = hn::LoadU(d, rows[1] + x), v1 = hn::LoadU(d, rows[2] + x);
    V v2 = hn::LoadU(d, rows[3] + x), v3 = hn::LoadU(d, rows[4] + x);
    BOTH(v0, v1) BOTH(v2, v3) BOTH(v0, v2) BOTH(v1, v3) BOTH(v1, v2) for (int r = 0; r < 2; r++)
    {
        V v = hn::LoadU(d, rows[r ? 5 : 0] + x); // sinks in from the low end
        hn::StoreU(hn::Min(v, v0), d, c->at[r][0] + to);
        v = hn::Max(v, v0);
        hn::StoreU(hn::Min(v, v1), d, c->at[r][1] + to);
        v = hn::Max(v, v1);
        hn::StoreU(hn::Min(v, v2), d, c->at[r][2] + to);
        v = hn::Max(v, v2);
        hn::StoreU(hn::Min(v, v3), d, c->at[r][3] + to);
        hn::StoreU(hn::Max(v, v3), d, c->at[r][4] + to);
    }
}

// The two columns on a side of the part, from x on by step: the border repeated, or the neighbours.
HWY_INLINE void SideColumns(const uint16_t *const *rows, int w, int x, int step, columns_t *c, int to)
{
    for (int j = 0; j < 2; j++, x += step, to += step) {
        const bool outside = x < 0 || x >= w;
        for (int r = 0; r < 2; r++) {
            uint16_t v[5];
            for (int i = 0; i < 5; i++)
                v[i] = outside ? c->at[r][i][to - step] : rows[r + i][x];
            if (!outside)
                std::sort(v, v + 5);
            for (int i = 0; i < 5; i++)
                c->at[r][i][to] = v[i];
        }
    }
}

// clang-format off
HWY_INLINE V WindowMedian(D lanes, const uint16_t (*rank)[PART + 2 * PAD], int at)
{
#define ROW(name, i)                                                                                           \
    V name##0 = hn::LoadU(lanes, rank[i] + at - 2), name##1 = hn::LoadU(lanes, rank[i] + at - 1);               \
    V name##2 = hn::LoadU(lanes, rank[i] + at), name##3 = hn::LoadU(lanes, rank[i] + at + 1);                   \
    V name##4 = hn::LoadU(lanes, rank[i] + at + 2);
    ROW(a, 0) ROW(b, 1) ROW(c, 2) ROW(d, 3) ROW(e, 4)
#undef ROW
    MEDIAN5_NETWORK(BOTH, LOW, HIGH)
    return c2;
}
// clang-format on

void Median3x3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (w <= (int)hn::Lanes(D()))
        return median2d_u16_k3_plain(dst, src, w, h);
    tq_window3::HWY_NAMESPACE::Window3<median3_t>(dst, src, w, h);
}

void Median5x5(uint16_t *dst, const uint16_t *src, int w, int h)
{
    const D d;
    const int N = (int)hn::Lanes(d);
    if (w < N)
        return median2d_u16_k5_plain(dst, src, w, h);
    columns_t c;
    for (int y0 = 0; y0 < h; y0 += 2) {
        const int y = std::min(y0, h - 2); // an odd last row is done with the one above once more
        const uint16_t *rows[6];
        for (int i = 0; i < 6; i++)
            rows[i] = src + (size_t)w * window_clamp(y - 2 + i, h);
        for (int part = 0; part < w; part += PART) {
            // A last part of less than a vector begins earlier.
            const int x0 = std::min(part, w - N);
            const int n = std::min(PART, w - x0);
            for (int i = 0;; i = std::min(i + N, n - N)) {
                SortColumns(d, rows, x0 + i, &c, PAD + i);
                if (i == n - N)
                    break;
            }
            SideColumns(rows, w, x0 - 1, -1, &c, PAD - 1);
            SideColumns(rows, w, x0 + n, 1, &c, PAD + n);
            for (int r = 0; r < 2; r++) {
                uint16_t *out = dst + (size_t)w * (y + r) + x0;
                for (int i = 0;; i = std::min(i + N, n - N)) {
                    hn::StoreU(WindowMedian(d, c.at[r], PAD + i), d, out + i);
                    if (i == n - N)
                        break;
                }
            }
        }
    }
}

#undef BOTH
#undef LOW
#undef HIGH

#endif

} // namespace HWY_NAMESPACE
} // namespace
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

HWY_EXPORT(Median3x3);
HWY_EXPORT(Median5x5);

void median2d_u16_k3_simd(uint16_t *dst, const uint16_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(Median3x3)(dst, src, w, h);
}

void median2d_u16_k5_simd(uint16_t *dst, const uint16_t *src, int w, int h)
{
    HWY_DYNAMIC_DISPATCH(Median5x5)(dst, src, w, h);
}
#endif
