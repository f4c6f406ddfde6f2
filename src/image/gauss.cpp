#include "tq_filter.h"

#include "image/smooth_kernels.h"
#include "image/window.h"
#include "simd/dispatch.h"

void tq_gauss2d_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h)
{
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    (simd_enabled() ? gauss2d_u16_k3_simd : gauss2d_u16_k3_plain)(dst, src, w, h);
}
