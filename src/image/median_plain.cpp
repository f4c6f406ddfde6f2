#include "image/smooth_kernels.h"

#include <cstddef>

#include "image/window.h"

// Without a branch: which one is less can't be foretold.
static inline void _order(uint16_t &a, uint16_t &b)
{
    const uint16_t swap = (uint16_t)((a ^ b) & -(int)(b < a));
    a ^= swap;
    b ^= swap;
}

// The median of N values, N odd, by forgetting: of the first N / 2 + 2 values the least and the greatest
// can't be the median. They go, the next value comes, until three are left.
template <int N> static inline uint16_t _median_of(uint16_t *v)
{
    for (int n = N / 2 + 2, next = n;; next++) {
        uint16_t low = v[0], high = v[n - 1];
        _order(low, high);
        for (int i = 1; i < n - 1; i++) {
            _order(low, v[i]);
            _order(v[i], high);
        }
        if (n == 3)
            return v[1];
        v[0] = v[n - 2]; // neither low nor high
        v[n - 2] = v[next];
        n--;
    }
}

template <int K> static void _median2d(uint16_t *dst, const uint16_t *src, int w, int h)
{
    constexpr int r = K / 2;
    for (int y = 0; y < h; y++) {
        const uint16_t *rows[K];
        for (int i = 0; i < K; i++)
            rows[i] = src + (size_t)w * window_clamp(y + i - r, h);
        for (int x = 0; x < w; x++) {
            uint16_t v[K * K];
            for (int j = 0; j < K; j++) {
                const int at = window_clamp(x + j - r, w);
                for (int i = 0; i < K; i++)
                    v[j * K + i] = rows[i][at];
            }
            dst[(size_t)w * y + x] = _median_of<K * K>(v);
        }
    }
}

void median2d_u16_k3_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    _median2d<3>(dst, src, w, h);
}

void median2d_u16_k5_plain(uint16_t *dst, const uint16_t *src, int w, int h)
{
    _median2d<5>(dst, src, w, h);
}
