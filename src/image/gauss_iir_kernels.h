// Forms of the recursive Gaussian. The plain form defines the result.
#pragma once

#include <cstddef>
#include <cstdint>

struct gauss_iir_coef_t {
    float b1, b2, b3, B; // out = B * in + b1 * out[-1] + b2 * out[-2] + b3 * out[-3]
};

gauss_iir_coef_t gauss_iir_coef(float sigma);

// Rows, then columns, each forward and backward; w and h at least 2; dst may be src. The vector form needs
// working memory and is false without it, with nothing done.
void gauss_iir_f32_plain(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c);
bool gauss_iir_f32_simd(float *dst, const float *src, int w, int h, const gauss_iir_coef_t &c);

// Cuts to integers, held to 0 to 65535; NaN is 0. The recursion leaves the range at edges by rounding, and by
// more where sigma is beyond reason.
void gauss_iir_to_u16_plain(uint16_t *dst, const float *src, size_t n);
void gauss_iir_to_u16_simd(uint16_t *dst, const float *src, size_t n);
