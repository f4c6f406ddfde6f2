/* Filters for distance images of time-of-flight cameras: flying pixels on depth edges, holes without a
 * measurement, and an edge-keeping smoother.
 *
 * Images are u16, row-major without padding; 0 means no measurement. Coordinates outside an image are
 * clamped, so that the outermost row and column count as repeated. Memory stays the caller's; dst and src
 * hold w * h values each and must not overlap unless a function says so. All functions may run on any thread;
 * those that take a filter object, on one thread at a time for each object. */
#ifndef TQ_DEPTH_H
#define TQ_DEPTH_H

#include <stdbool.h>
#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zero the pixels that mix foreground and background: those whose gradient is large for their own distance,
 * since a surface seen at a steady angle has a gradient that grows with its distance.
 *
 * With Sobel gradients gx, gy and the centre c, k3 drops a pixel where c * c * thr / 1024 is below
 * (gx * gx + gy * gy) / 4, fractions dropped, all in 64 bits. k5 takes unweighted differences of the two
 * outer pairs of rows and columns of a 5 by 5 window, and 256 for 1024: its thr is another scale.
 *
 * thr  a smaller one drops more; the drivers use 1 to 32 with k3.
 *
 * Sizes below 2 do nothing; k3 logs them. I. Sobel, G. Feldman, "A 3x3 isotropic gradient operator for image
 * processing" (1968). */
TQCAM_API void tq_flypix_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h, int thr);
TQCAM_API void tq_flypix_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h, int thr);

/* Give each hole the largest of its 8 (k3) or 24 (k5) neighbours. A hole is a value of 0 or one from 32768
 * on, which includes the markers of invalid pixels; values compare as signed 16-bit numbers.
 *
 * in_place  0: all neighbours are those of src, so that only the rim of a hole is filled;
 *           else src is copied to dst first and filled pixels feed the later ones in scan order; dst may then
 *           be src
 *
 * Sizes below 2 do nothing. */
TQCAM_API void tq_fhole_u16_k3(uint16_t *dst, const uint16_t *src, int w, int h, int in_place);
TQCAM_API void tq_fhole_u16_k5(uint16_t *dst, const uint16_t *src, int w, int h, int in_place);

/* Fill holes from the measured neighbour that is nearest by a 3 by 3 chamfer distance, in one scan: right and
 * down as far as a hole reaches, left and up by one step. A hole without a filled neighbour at its turn
 * stays.
 *
 * Sizes below 2 are logged and do nothing; out of memory ends the process with status -3. G. Borgefors,
 * "Distance transformations in digital images", CVGIP 34 (1986). */
TQCAM_API void tq_fhole_u16_edt3(uint16_t *dst, const uint16_t *src, int w, int h);

/* A recursive bilateral filter: first-order recursions in four directions, each step weighted by how near the
 * two pixels are in value. The cost doesn't depend on the width of the filter. One object serves one size and
 * one set of parameters, one call at a time. Treat the fields as read-only. Q. Yang, "Recursive bilateral
 * filtering", ECCV 2012. */
typedef struct tq_bpf2d_iir_t {
    uint32_t w, h;
    float sigma_spatial, sigma_range;
    float lo, hi;     /* differences of neighbours are clamped into this range; lo is a noise floor */
    float *range_tbl; /* weight of a difference, less lo; owned */
    uint32_t range_n;
    float alpha_x, alpha_y; /* feedback along rows and columns */
    uint16_t *dst;          /* image of the running call */
    float *sum, *norm;      /* planes of at least w * h values between the row and the column pass; owned */
    float *line[6];         /* buffers of 32 * max(w, h) bytes each, one behind the other; owned by line[0] */
} tq_bpf2d_iir_t;

/* Sets up a filter. The record's former content is lost, not freed.
 *
 * w, h           1 to 40960
 * vmin, vmax     differences up to vmin weigh 1, those from vmax on least; vmax - vmin is cut to 4095
 * sigma_spatial  width of the filter as a part of the image's; 0 for none
 * sigma_range    reach in value as a part of vmax - vmin + 1
 *
 * Returns true. Returns false, logs why and leaves a record that filters nothing and that
 * tq_bpf2d_iir_uninit accepts: for a size outside the range, for vmin above vmax, and when out of memory. */
TQCAM_API bool tq_bpf2d_iir_init(tq_bpf2d_iir_t *f, uint32_t w, uint32_t h, uint16_t vmin, uint16_t vmax,
                                 float sigma_spatial, float sigma_range);

/* Filters one image; w and h are those of init. dst may be src. NULL or another size is logged and does
 * nothing. The thread's mode for subnormal floats is changed for the call and restored. */
TQCAM_API void tq_bpf2d_iir(tq_bpf2d_iir_t *f, uint16_t *dst, const uint16_t *src, uint32_t w, uint32_t h);

/* Frees what init allocated and clears the record; NULL is fine. */
TQCAM_API void tq_bpf2d_iir_uninit(tq_bpf2d_iir_t *f);

#ifdef __cplusplus
}
#endif

#endif
