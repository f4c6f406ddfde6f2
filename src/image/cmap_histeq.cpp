#include "tq_cmap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "log/log.h"

namespace {

// The range in bins. Two more bins follow the nb ones when values out of range are dropped: they don't count.
template <typename T> struct bins_t {
    using wide_t = std::conditional_t<std::is_same_v<T, float>, float, uint32_t>; // of all arithmetic
    T vmin, vmax;
    wide_t span, width;
    int64_t nb;
    bool drop;

    int64_t of(T v) const
    {
        if (!(v > vmin))
            return drop ? nb : 0;
        if (v >= vmax)
            return drop ? nb + 1 : nb - 1;
        const wide_t bin = (wide_t)(v - vmin) / width;
        return bin < (wide_t)(nb - 1) ? (int64_t)bin : nb - 1;
    }

    // How far above vmin, inside the range.
    wide_t above(T v) const { return !(v > vmin) ? 0 : std::min((wide_t)(v - vmin), span); }
};

template <typename T> void _equalise(T *dst, const T *src, int n, const bins_t<T> &bins, const char *name)
{
    using wide_t = typename bins_t<T>::wide_t;
    const size_t nb = (size_t)bins.nb;
    uint32_t *const count = (uint32_t *)calloc(nb + 2, sizeof *count);
    wide_t *const lut = (wide_t *)malloc(nb * sizeof *lut);
    if (!count || !lut) {
        LOG_AS(6, "ERR", name, "[%s]malloc failed\n");
        exit(0);
    }
    for (int k = 0; k < n; k++)
        count[bins.of(src[k])]++;
    const uint32_t total = (uint32_t)n - count[nb] - count[nb + 1];
    if (total == 0) {
        memset(dst, 0, (size_t)n * sizeof *dst);
    } else {
        uint32_t below = 0; // of this bin and those before
        for (size_t b = 0; b < nb; b++) {
            below += count[b];
            lut[b] = (wide_t)below * bins.span / (wide_t)total + bins.vmin;
        }
        for (int k = 0; k < n; k++) {
            const size_t b = (size_t)bins.of(src[k]);
            if (b >= nb) {
                dst[k] = 0;
                continue;
            }
            const wide_t lo = lut[b];
            const wide_t hi = lut[std::min(b + 1, nb - 1)];
            dst[k] = (T)((bins.above(src[k]) - (wide_t)b * bins.width) * (hi - lo) / bins.width + lo);
        }
    }
    free(count);
    free(lut);
}

} // namespace

int tq_cmap_histeq_u16(uint16_t *dst, const uint16_t *src, int n, uint16_t vmin, uint16_t vmax, int bins,
                       bool drop_out_of_range)
{
    if (!dst || !src || n < 1 || bins < 1)
        return -22;
    const uint16_t span = (uint16_t)(vmax - vmin);
    if (span == 0) {
        memset(dst, 0, (size_t)n * sizeof *dst);
        return 0;
    }
    const uint32_t width = (uint32_t)(((int64_t)span + bins - 1) / bins);
    _equalise<uint16_t>(dst, src, n, {vmin, vmax, span, width, (span + width - 1) / width, drop_out_of_range},
                        __func__);
    return 0;
}

int tq_cmap_histeq_f32(float *dst, const float *src, int n, float vmin, float vmax, int bins,
                       bool drop_out_of_range)
{
    if (!dst || !src || n < 1 || bins < 1)
        return -22;
    const float span = vmax - vmin;
    if (!(span > 0.0f)) {
        memset(dst, 0, (size_t)n * sizeof *dst);
        return 0;
    }
    _equalise<float>(dst, src, n, {vmin, vmax, span, span / (float)bins, bins, drop_out_of_range}, __func__);
    return 0;
}
