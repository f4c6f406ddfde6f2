/* Numerics behind calibration: least squares fits, a fit that drops outliers, Mahalanobis distances, a median
 * of short lists, and the printers of the trigonometric tables.
 *
 * The r value of every fit is the coefficient of determination, 1 - SSres / SStot: 1 for a perfect fit, 0 for
 * one no better than the mean. It is not a correlation coefficient.
 *
 * Nothing here reports an error. Degenerate samples (all x equal, a constant y, fewer samples than
 * coefficients) come out as NaN or infinite values, which the caller tests for.
 *
 * All functions are pure but for the two printers and may run on any thread. Memory stays the caller's; only
 * the multiple fits and the distances allocate, and give it back before they return. Running out of
 * memory ends the process. */
#ifndef TQ_MATH_H
#define TQ_MATH_H

#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Print the tables of the distance calculation as C source on standard output: n entries of
 * round(atan2(i, n - 1) * 32768 / 2 pi), and n entries of sin(2 pi i / n) with six decimals. n below 1 prints
 * an empty table. */
TQCAM_API void tq_math_lut_print_arctan2(uint32_t n);
TQCAM_API void tq_math_lut_print_sinf(int n);

/* Fit the line y = slope * x + offset by least squares.
 *
 * x, y           n samples each
 * slope, offset  the line; NaN with n below 1 or all x equal
 * r              the r value, or NULL when it isn't wanted
 *
 * The u16 form sums in 64-bit integers and divides in f32. The f32 form sums in f64, each product rounded to
 * f32 first; it runs once for every pixel of a calibration and allocates nothing. */
TQCAM_API void tq_math_linear_LSR_u16(const uint16_t *x, const uint16_t *y, int n, float *slope,
                                      float *offset, float *r);
TQCAM_API void tq_math_linear_LSR_f32(const float *x, const float *y, int n, float *slope, float *offset,
                                      float *r);

/* Fit y = coef[0] + coef[1] * x_1 + ... by the normal equations, in f64.
 *
 * x     k - 1 arrays of n values, one after the other: sample i of feature j (from 0) is x[j * n + i]
 * y     n samples
 * w     n weights, or NULL for equal ones
 * coef  k coefficients, the intercept first
 * k     number of coefficients, the intercept counted
 * r     the r value, or NULL; its total is taken round the plain mean of y, with or without weights
 *
 * Without x, y or coef, or with k below 2, nothing happens. A feature that is 0 in all samples gets the
 * coefficient 0; without any sample all coefficients are 0 and r is NaN. */
TQCAM_API void tq_math_multiple_linear_fit_f32(const float *x, const float *y, const float *w, int n,
                                               float *coef, int k, float *r);
TQCAM_API void tq_math_multiple_linear_fit_u16(const uint16_t *x, const uint16_t *y, const float *w, int n,
                                               float *coef, int k, float *r);

/* Fit y = coef[0] + coef[1] * x + coef[2] * x^2 + ..., as above; k from 1. */
TQCAM_API void tq_math_polynomial_LSR_u16(const uint16_t *x, const uint16_t *y, const float *w, int n,
                                          float *coef, int k, float *r);

/* The multiple fit, repeated without its outliers: while the r value improves and is below r_target, the
 * samples farthest from the mean of what is left (Mahalanobis distance of all features and y) are dropped.
 *
 * x .. r       as in tq_math_multiple_linear_fit_f32; k from 1
 * outlier_idx  receives input indices of dropped samples, or NULL
 * n_outlier    on entry the room in outlier_idx, on return the number of samples dropped, which may be more;
 *              or NULL. The samples of the last pass are not reported, so the count is a lower bound.
 * max_iter     passes at most; calibration takes 10
 * ratio        part of the n samples to drop in a pass, at least one sample; calibration takes 0.03
 * r_target     r value that ends the work; calibration takes 0.999
 *
 * With n below 2, k below 1 or x, y or coef missing, a message goes to standard output and nothing is
 * written. With max_iter below 1 no fit is made: the coefficients and r come out as 0.
 *
 * P. C. Mahalanobis, "On the generalised distance in statistics", Proc. Nat. Inst. Sci. India 2 (1936). */
TQCAM_API void tq_math_multiple_linear_fit_outlier_remove_f32(const float *x, const float *y, const float *w,
                                                              int n, float *coef, int k, float *r,
                                                              int32_t *outlier_idx, int32_t *n_outlier,
                                                              int max_iter, float ratio, float r_target);

/* The squared Mahalanobis distance of each sample from the mean of all.
 *
 * x  m arrays of n values, feature after feature, as in the fits
 * y  n values, one more column
 * d  receives n distances; not finite where the covariance is singular
 *
 * With n below 1, m below 0 or a pointer missing nothing happens. */
TQCAM_API void tq_mach_maha_dist_vec2avg_f32(const float *x, const float *y, int n, int m, float *d);

/* The median of a short list, the upper of the two middle values when n is even. n is taken as 8 bits. Values
 * compare as signed; the result holds the 16 bits of the value found. An empty list gives 0. */
TQCAM_API uint16_t tq_math_get_median_i16(const int16_t *v, int n);

#ifdef __cplusplus
}
#endif

#endif
