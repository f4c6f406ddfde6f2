// Whole rows: the merge of two integration times, and the order in which rows leave the sensor.
#include <algorithm>
#include <cstring>

#include "drivers/epc/epc_kernels.h"

void epc_hdr_merge_plain(uint16_t *dist, uint32_t *amp, uint32_t w, uint32_t h)
{
    const size_t pair = size_t{2} * w;
    for (uint32_t r = 0; r + 4 <= h; r += 4) {
        uint16_t *const d = dist + size_t{r} * w;
        uint32_t *const a = amp + size_t{r} * w;
        for (size_t x = 0; x < pair; x++) {
            const uint32_t first = a[x], second = a[x + pair];
            const bool take_second = epc_take_second(first, second);
            a[x] = a[x + pair] = take_second ? second : first;
            d[x] = d[x + pair] = take_second ? d[x + pair] : d[x];
        }
    }
}

void epc_hdr_merge_gray_plain(uint16_t *gray, uint32_t w, uint32_t h)
{
    const size_t pair = size_t{2} * w;
    for (uint32_t r = 0; r + 4 <= h; r += 4) {
        uint16_t *const g = gray + size_t{r} * w;
        for (size_t x = 0; x < pair; x++)
            g[x] = g[x + pair] = std::max(g[x], g[x + pair]); // 16 bits never reach saturation
    }
}

template <typename T> static void _row_sort(T *dst, const T *src, uint32_t w, uint32_t h)
{
    for (uint32_t r = 0; r < h; r++)
        memcpy(dst + size_t{epc_image_row(r, h)} * w, src + size_t{r} * w, size_t{w} * sizeof(T));
}

void epc_row_sort_u16_plain(uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h)
{
    _row_sort(dst, src, w, h);
}

void epc_row_sort_u32_plain(uint32_t *dst, const uint32_t *src, uint32_t w, uint32_t h)
{
    _row_sort(dst, src, w, h);
}
