// Medians of 3 x 3 and 5 x 5 pixels. The columns of a window slide with it, each sorted once, when it enters.
// No comparison becomes a branch: which value is less can't be foretold.
#include "image/smooth_kernels.h"

#include <algorithm>
#include <cstddef>

#include "image/median5_network.h"
#include "image/window.h"

// A comparator, and its halves where only one result is needed.
#define LOW(a, b) a = a < b ? a : b;
#define HIGH(a, b) b = a < b ? b : a;
#define BOTH(a, b)                                                                                           \
    {                                                                                                        \
        const int low_ = a < b ? a : b;                                                                      \
        b = a < b ? b : a;                                                                                   \
        a = low_;                                                                                            \
    }

namespace {

// The ranks of a column of three or five; of three the last two are not used.
struct column_t {
    int a, b, c, d, e;
};

// clang-format off
inline int _median3(int a, int b, int c)
{
    BOTH(a, b) LOW(c, b) HIGH(a, c)
    return c;
}

inline column_t _sorted3(const uint16_t *const *rows, int x)
{
    int a = rows[0][x], b = rows[1][x], c = rows[2][x];
    BOTH(a, b) BOTH(b, c) BOTH(a, b)
    return {a, b, c, 0, 0};
}

inline column_t _sorted5(const uint16_t *const *rows, int x)
{
    int a = rows[0][x], b = rows[1][x], c = rows[2][x], d = rows[3][x], e = rows[4][x];
    BOTH(a, b) BOTH(c, d) BOTH(a, c) BOTH(b, d) BOTH(b, c) // four
    BOTH(a, e) BOTH(b, e) BOTH(c, e) BOTH(d, e)            // the fifth sinks in
    return {a, b, c, d, e};
}

// Of three sorted columns: the median is that of the greatest least, the middle middle and the least greatest.
inline int _window_median(const column_t (&col)[3])
{
    return _median3(std::max({col[0].a, col[1].a, col[2].a}), _median3(col[0].b, col[1].b, col[2].b),
                    std::min({col[0].c, col[1].c, col[2].c}));
}

inline int _window_median(const column_t (&col)[5])
{
#define COLUMN(i) int a##i = col[i].a, b##i = col[i].b, c##i = col[i].c, d##i = col[i].d, e##i = col[i].e;
    COLUMN(0) COLUMN(1) COLUMN(2) COLUMN(3) COLUMN(4)
#undef COLUMN
    MEDIAN5_NETWORK(BOTH, LOW, HIGH)
    return c2;
}
// clang-format on

template <int K>
void _median2d(uint16_t *dst, const uint16_t *src, int w, int h,
               column_t (*sorted)(const uint16_t *const *, int))
{
    constexpr int r = K / 2;
    for (int y = 0; y < h; y++) {
        const uint16_t *rows[K];
        for (int i = 0; i < K; i++)
            rows[i] = src + (size_t)w * window_clamp(y - r + i, h);
        column_t col[K];
        for (int j = 1; j < K; j++)
            col[j] = sorted(rows, window_clamp(j - 1 - r, w));
        for (int x = 0; x < w; x++) {
            std::copy(col + 1, col + K, col);
            col[K - 1] = sorted(rows, window_clamp(x + r, w));
            dst[(size_t)w * y + x] = (uint16_t)_window_median(col);
        }
    }
}

} // namespace

void median2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    _median2d<3>(dst, src, w, h, _sorted3);
}

void median2d_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    _median2d<5>(dst, src, w, h, _sorted5);
}
