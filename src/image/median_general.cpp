// The median of a window of any size: counts of the window's values follow it through the image.
#include "image/median_general.h"

#include <cstdlib>

#include "image/window.h"

namespace {

// Counts of the values in the window, of each value and of each run of 256, and the median so far: level is a
// value, below the number of the window's values less than it. Count holds the size of the window.
template <class Count> struct median_counts_t {
    Count coarse[256];
    Count fine[65536];
    int level;
    int64_t below;
};

template <class Count> inline void _median2d_u16_add_val(median_counts_t<Count> *m, uint16_t v)
{
    m->coarse[v >> 8]++;
    m->fine[v]++;
    m->below += v < m->level;
}

template <class Count> inline void _median2d_u16_del_val(median_counts_t<Count> *m, uint16_t v)
{
    m->coarse[v >> 8]--;
    m->fine[v]--;
    m->below -= v < m->level;
}

// Moves level to the value with half values below it or equal, half = window size / 2: runs of 256 at a time
// while none of them holds it, then value by value.
template <class Count> inline uint16_t _median2d_u16_settle(median_counts_t<Count> *m, int64_t half)
{
    while (m->below > half) { // the median is less than level
        if ((m->level & 255) == 0 && m->below - (int64_t)m->coarse[(m->level >> 8) - 1] > half) {
            m->below -= m->coarse[(m->level >> 8) - 1];
            m->level -= 256;
        } else {
            m->level--;
            m->below -= m->fine[m->level];
        }
    }
    while (m->below + (int64_t)m->fine[m->level] <= half) { // greater
        if ((m->level & 255) == 0 && m->below + (int64_t)m->coarse[m->level >> 8] <= half) {
            m->below += m->coarse[m->level >> 8];
            m->level += 256;
        } else {
            m->below += m->fine[m->level];
            m->level++;
        }
    }
    return (uint16_t)m->level;
}

template <class Count> bool _median2d_u16(uint16_t *dst, const uint16_t *src, int w, int h, int kernel)
{
    const int r = (kernel - 1) / 2;
    const int64_t half = (int64_t)kernel * kernel / 2;
    auto *m = (median_counts_t<Count> *)calloc(1, sizeof(median_counts_t<Count>));
    if (!m)
        return false;

    for (int i = -r; i <= r; i++) {
        const uint16_t *row = src + (size_t)w * window_clamp(i, h);
        for (int j = -r; j <= r; j++)
            _median2d_u16_add_val(m, row[window_clamp(j, w)]);
    }

    // Left to right on even rows, right to left on odd ones: a step exchanges one column of the window, and
    // at the end of a row one row of it.
    int x = 0;
    for (int y = 0; y < h; y++) {
        const int step = y & 1 ? -1 : 1;
        if (y > 0) {
            const uint16_t *out = src + (size_t)w * window_clamp(y - 1 - r, h);
            const uint16_t *in = src + (size_t)w * window_clamp(y + r, h);
            for (int j = -r; j <= r; j++) {
                const int at = window_clamp(x + j, w);
                _median2d_u16_del_val(m, out[at]);
                _median2d_u16_add_val(m, in[at]);
            }
        }
        for (int left = w;; x += step) {
            dst[(size_t)w * y + x] = _median2d_u16_settle(m, half);
            if (--left == 0)
                break;
            const int out = window_clamp(x - step * r, w), in = window_clamp(x + step * (r + 1), w);
            for (int i = -r; i <= r; i++) {
                const uint16_t *row = src + (size_t)w * window_clamp(y + i, h);
                _median2d_u16_del_val(m, row[out]);
                _median2d_u16_add_val(m, row[in]);
            }
        }
    }
    free(m);
    return true;
}

} // namespace

bool median2d_u16_general(uint16_t *dst, const uint16_t *src, int w, int h, int kernel)
{
    // The short counts stay in the second-level cache.
    return kernel <= 255 ? _median2d_u16<uint16_t>(dst, src, w, h, kernel)
                         : _median2d_u16<uint64_t>(dst, src, w, h, kernel);
}
