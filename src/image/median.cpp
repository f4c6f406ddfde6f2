#include <cstdlib>

#include "tq_filter.h"

#include "image/median_general.h"
#include "image/smooth_kernels.h"
#include "image/window.h"
#include "simd/dispatch.h"

void tq_median2d_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    (simd_enabled() ? median2d_u16_k3_simd : median2d_u16_k3_plain)(dst, src, w, h);
}

void tq_median2d_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    (simd_enabled() ? median2d_u16_k5_simd : median2d_u16_k5_plain)(dst, src, w, h);
}

void tq_median2d_u16(uint16_t *dst, const uint16_t *src, int w, int h, int kernel)
{
    if (kernel == 3)
        return tq_median2d_u16_k3(dst, src, w, h);
    if (kernel == 5)
        return tq_median2d_u16_k5(dst, src, w, h);
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    if (kernel < 3 || kernel % 2 == 0 || kernel >= 2 * (int64_t)w || kernel >= 2 * (int64_t)h) {
        LOG_ERROR("[%s] wrong parameter:w/h/kernel=%d/%d/%d\n", w, h, kernel);
        return;
    }
    if (!median2d_u16_general(dst, src, w, h, kernel)) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
}
