#include "tq_lens.h"

#include "image/lens_map.h"

template <class T> static void _undistort(T *dst, const T *src, const uint32_t *map, int n, T fill)
{
    for (int i = 0; i < n; i++)
        dst[i] = map[i] == TQ_CALIB_LEN_NO_SOURCE ? fill : src[map[i]];
}

void undistort_f32_plain(float *dst, const float *src, const uint32_t *map, int n, float fill)
{
    _undistort(dst, src, map, n, fill);
}

void undistort_u16_plain(uint16_t *dst, const uint16_t *src, const uint32_t *map, int n, uint16_t fill)
{
    _undistort(dst, src, map, n, fill);
}
