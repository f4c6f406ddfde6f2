// Forms of the recursive Gaussian. The plain form defines the result.
#pragma once

struct gauss_iir_coef_t {
    float b1, b2, b3, B; // out = B * in + b1 * out[-1] + b2 * out[-2] + b3 * out[-3]
};

gauss_iir_coef_t gauss_iir_coef(float sigma);

// Rows, then columns, each forward and backward; w and h at least 2; dst may be src.
void gauss_iir_f32_plain(float *dst, const float *src, int w, int h, gauss_iir_coef_t c);
