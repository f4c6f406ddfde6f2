/* Smoothing of distance and gray images, and the conversions that move images between element types.
 *
 * Images are row-major without row padding; w and h count pixels. Nothing is kept between calls, so that any
 * thread may call any function at any time on buffers of its own. All memory stays the caller's. Where a
 * function runs a vector form, its result has the same bits as the plain one. */
#ifndef TQ_FILTER_H
#define TQ_FILTER_H

#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Conversions of n elements; n below 1 or a NULL pointer does nothing. dst and src may overlap only where the
 * writes stay at or behind the reads, as when an image is widened from the upper half of its own buffer.
 *
 * Floats are cut towards zero. What lies outside the 32-bit integer range is taken as the nearest value in
 * it, NaN as 0; the integer then wraps into the destination's width. */

/* dst = src >> factor, its low 8 bits. A factor above 15 gives 0, a negative one counts as 0. */
TQCAM_API void tq_conv_u16_u8(uint8_t *dst, const uint16_t *src, int n, int factor);
/* dst = (float)src * factor */
TQCAM_API void tq_conv_u16_f32(float *dst, const uint16_t *src, int n, float factor);
/* dst = src * factor */
TQCAM_API void tq_conv_u16_u32(uint32_t *dst, const uint16_t *src, int n, uint16_t factor);
/* dst = (int)(src * factor) */
TQCAM_API void tq_conv_f32_u8(uint8_t *dst, const float *src, int n, float factor);
TQCAM_API void tq_conv_f32_u16(uint16_t *dst, const float *src, int n, float factor);
/* The same; values from 2^31 to below 2^32 keep their value, larger ones become 2^32 - 1. */
TQCAM_API void tq_conv_f32_u32(uint32_t *dst, const float *src, int n, float factor);
/* dst = (float)src, times factor unless that is 1 */
TQCAM_API void tq_conv_u32_f32(float *dst, const uint32_t *src, int n, float factor);

/* Filters on windows of 3 x 3 and 5 x 5 pixels. Outside the image the nearest pixel inside stands in, so that
 * the outermost rows and columns are repeated. dst and src hold w * h elements and are distinct. A w or h
 * below 2 is logged and leaves dst as it is; so does a NULL pointer, without a line. */

/* Binomial smoothing: weights 1 2 1, 2 4 2, 1 2 1; the sum shifted right by 4. */
TQCAM_API void tq_gauss2d_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h);
/* Mean of the eight neighbours: their sum shifted right by 3. The pixel itself doesn't count, so that a
 * single bad one doesn't reach its own output. */
TQCAM_API void tq_box2d_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h);
TQCAM_API void tq_box2d_u32_k3(uint32_t *dst, const uint32_t *src, int w, int h);
/* Exact median of the window. */
TQCAM_API void tq_median2d_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h);
TQCAM_API void tq_median2d_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h);

/* Exact median of a window of kernel x kernel pixels, by the same border rule: kernel is odd, at least 3, and
 * smaller than 2 * w and 2 * h; others are logged and leave dst as it is. Kernels 3 and 5 are the two above.
 * The cost of a pixel grows with kernel, not with its square: counts of the window's values follow it through
 * the image, one column or row exchanged a step (T. S. Huang and others, "A fast two-dimensional median
 * filtering algorithm", 1979). Ends the process with status -3 when out of memory. */
TQCAM_API void tq_median2d_u16(uint16_t *dst, const uint16_t *src, int w, int h, int kernel);

/* Recursive Gaussian of third order along rows, then along columns, each forward and backward (I. T. Young
 * and L. J. van Vliet, "Recursive implementation of the Gaussian filter", 1995). The cost does not depend on
 * sigma, which is in pixels; below 0.5 the filter hardly smooths. dst and src hold w * h elements and may be
 * the same; w and h are at least 2, as above. Ends the process with status -3 when out of memory. */
TQCAM_API void tq_gauss2d_iir_f32(float *dst, const float *src, int w, int h, float sigma);
/* The same through f32; results are held to 0 to 65535 and cut to integers. */
TQCAM_API void tq_gauss2d_iir_u16(uint16_t *dst, const uint16_t *src, int w, int h, float sigma);
/* The same for callers that carry a size with each buffer: sizes that differ are logged and leave dst as it
 * is. Mind that height comes first. */
TQCAM_API void tqalgo_gauss2d_iir_u16(uint16_t *dst, int dst_h, int dst_w, const uint16_t *src, int src_h,
                                      int src_w, float sigma);
TQCAM_API void tqalgo_gauss2d_iir_f32(float *dst, int dst_h, int dst_w, const float *src, int src_h,
                                      int src_w, float sigma);

#ifdef __cplusplus
}
#endif

#endif
