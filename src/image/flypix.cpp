#include "tq_depth.h"

#include "image/depth_kernels.h"
#include "log/log.h"
#include "simd/dispatch.h"

void tq_flypix_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    if (!dst || !src || w < 2 || h < 2) {
        LOG_ERROR("[%s] wrong parameter:w/h=%d/%d\n", w, h);
        return;
    }
    if (simd_enabled() && thr >= 0 && thr <= 63)
        flypix_u16_k3_simd(dst, src, w, h, thr);
    else
        flypix_u16_k3_plain(dst, src, w, h, thr);
}

void tq_flypix_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h, int thr)
{
    if (dst && src && w >= 2 && h >= 2)
        flypix_u16_k5_plain(dst, src, w, h, thr);
}
