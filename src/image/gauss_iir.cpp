#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "tq_filter.h"

#include "image/gauss_iir_kernels.h"
#include "image/window.h"
#include "simd/dispatch.h"
#include "simd/flush_subnormals.h"

// Coefficients of the third-order recursion, formed in f64 and rounded; B makes the sum 1 again.
gauss_iir_coef_t gauss_iir_coef(float sigma)
{
    const double s = sigma;
    double q;
    if (s >= 2.5)
        q = 0.98711 * s - 0.9633;
    else if (s >= 0.5)
        q = 3.97156 - 4.14554 * std::sqrt(1 - 0.26891 * s);
    else // too narrow for the approximation; NaN too
        return {0.170402f, -0.011035039f, 0.00033983588f, 0.84029317f};

    const double q2 = q * q, q3 = q2 * q;
    const double b0 = 1.57825 + 2.44413 * q + 1.4281 * q2 + 0.422205 * q3;
    gauss_iir_coef_t c;
    c.b1 = (float)((2.44413 * q + 2.85619 * q2 + 1.26661 * q3) / b0);
    c.b2 = (float)(-(1.4281 * q2 + 1.26661 * q3) / b0);
    c.b3 = (float)(0.422205 * q3 / b0);
    c.B = 1.0f - (c.b1 + c.b2 + c.b3);
    return c;
}

void tq_gauss2d_iir_f32(float *dst, const float *src, int w, int h, float sigma)
{
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    const gauss_iir_coef_t c = gauss_iir_coef(sigma);
    if (!simd_enabled())
        gauss_iir_f32_plain(dst, src, w, h, c);
    else if (!gauss_iir_f32_simd(dst, src, w, h, c)) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
}

void tq_gauss2d_iir_u16(uint16_t *dst, const uint16_t *src, int w, int h, float sigma)
{
    if (!dst || !src || !window_size_ok(__func__, w, h))
        return;
    const size_t n = (size_t)w * (size_t)h;
    const std::unique_ptr<float, decltype(&free)> img((float *)malloc(n * sizeof(float)), free);
    if (!img) {
        LOG_ERROR("[%s]malloc failed\n");
        exit(-3);
    }
    for (size_t at = 0; at < n; at += INT_MAX) // the conversion counts in int
        tq_conv_u16_f32(img.get() + at, src + at, (int)std::min<size_t>(n - at, INT_MAX), 1.0f);
    {
        // Behind an object the recursion decays into subnormals; they are far from reaching an integer.
        FlushSubnormals flush;
        tq_gauss2d_iir_f32(img.get(), img.get(), w, h, sigma);
    }
    (simd_enabled() ? gauss_iir_to_u16_simd : gauss_iir_to_u16_plain)(dst, img.get(), n);
}

static bool _sizes_agree(const char *name, int dst_h, int dst_w, int src_h, int src_w)
{
    if (dst_h == src_h && dst_w == src_w)
        return true;
    LOG_AS(6, "ERR", name, "[%s]wrong parameter: src wxh = %dx%d, dst wxh = %dx%d\n", src_w, src_h, dst_w,
           dst_h);
    return false;
}

void tqalgo_gauss2d_iir_u16(uint16_t *dst, int dst_h, int dst_w, const uint16_t *src, int src_h, int src_w,
                            float sigma)
{
    if (_sizes_agree(__func__, dst_h, dst_w, src_h, src_w))
        tq_gauss2d_iir_u16(dst, src, src_w, src_h, sigma);
}

void tqalgo_gauss2d_iir_f32(float *dst, int dst_h, int dst_w, const float *src, int src_h, int src_w,
                            float sigma)
{
    if (_sizes_agree(__func__, dst_h, dst_w, src_h, src_w))
        tq_gauss2d_iir_f32(dst, src, src_w, src_h, sigma);
}
